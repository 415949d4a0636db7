#include "v4l2/krv4l2device.hpp"

#include <cerrno>
#include <fcntl.h>
#include <stdexcept>
#include <sys/ioctl.h>
#include <system_error>
#include <unistd.h>

namespace KR {

KRV4l2Device::KRV4l2Device(const std::string& path)
    : file_(open(path.c_str(), O_RDWR | O_NONBLOCK | O_CLOEXEC)) {
    if (file_ < 0) {
        throw std::runtime_error(std::generic_category().message(errno));
    }
}

KRV4l2Device::~KRV4l2Device() {
    close(file_);
}

bool KRV4l2Device::controlWith(unsigned long request, void* argument) const {
    int result = 0;
    do {
        result = ioctl(file_, request, argument);
    } while (result == -1 && errno == EINTR);
    return result == 0;
}

} // namespace KR
