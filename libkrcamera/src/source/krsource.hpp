#pragma once

#include "camera/krcamera.hpp"
#include "camera/krcontrols.hpp"
#include "source/krsourcestring.hpp"

#include <memory>
#include <string>
#include <utility>

namespace KR {

/// Where the images of one camera come from. It exists whether the camera is open or not. Thread-safe.
class KRSource {
public:
    explicit KRSource(KRSourceString string) : string_(std::move(string)) {}
    virtual ~KRSource() = default;
    KRSource(const KRSource&) = delete;
    KRSource& operator=(const KRSource&) = delete;

    /// The source string, for messages: a password in it is hidden.
    const std::string& getText() const noexcept { return string_.text; }
    int getModel() const noexcept { return string_.kind->model; }

    /// The controls of the camera, usable even while it is closed.
    virtual KRControls& getControls() noexcept = 0;
    /// Makes the camera, closed. The source must outlive it.
    /// \param title  for the log: "camera 0 (test)"
    virtual std::shared_ptr<KRCamera> makeCamera(int index, const std::string& title) = 0;

protected:
    const KRSourceString& getString() const noexcept { return string_; }

private:
    const KRSourceString string_;
};

} // namespace KR
