#pragma once

#include <string>

namespace KR {

/// An open V4L2 device. A device that is streaming can be opened, too.
class KRV4l2Device {
public:
    /// \throws std::runtime_error  it cannot be opened; the text is the system's
    explicit KRV4l2Device(const std::string& path);
    ~KRV4l2Device();
    KRV4l2Device(const KRV4l2Device&) = delete;
    KRV4l2Device& operator=(const KRV4l2Device&) = delete;

    /// \param request   VIDIOC_...
    /// \param argument  the structure that belongs to the request
    /// \return false, with the reason in errno
    template <class Argument>
    bool control(unsigned long request, Argument& argument) const {
        return controlWith(request, &argument);
    }

private:
    bool controlWith(unsigned long request, void* argument) const;

    const int file_;
};

} // namespace KR
