#include "krinterop/krcdr.hpp"

#include <array>
#include <cstdio>
#include <limits>

namespace KR {

namespace {

// Representation identifier CDR_LE, no options (OMG XTypes 7.6.3.1.2).
constexpr std::array<unsigned char, 4> kLittleEndianCdr = {0x00, 0x01, 0x00, 0x00};

} // namespace

KRCdrError::~KRCdrError() = default;

KRCdrWriter::KRCdrWriter() : bytes_(kLittleEndianCdr.begin(), kLittleEndianCdr.end()) {}

void KRCdrWriter::write(std::string_view text) {
    writeLength(text.size() + 1);
    append(text.data(), text.size());
    bytes_.push_back(0);
}

void KRCdrWriter::writeLength(std::size_t elements) {
    if (elements > std::numeric_limits<std::uint32_t>::max()) {
        throw KRCdrError("a string or sequence of " + std::to_string(elements) +
                         " elements is longer than CDR can count");
    }
    write(static_cast<std::uint32_t>(elements));
}

void KRCdrWriter::align(std::size_t size) {
    const std::size_t written = bytes_.size() - kLittleEndianCdr.size();
    bytes_.resize(bytes_.size() + (size - written % size) % size);
}

void KRCdrWriter::append(const void* from, std::size_t size) {
    const auto* bytes = static_cast<const unsigned char*>(from);
    bytes_.insert(bytes_.end(), bytes, bytes + size);
}

KRCdrReader::KRCdrReader(KRBytes message) : message_(message), position_(kLittleEndianCdr.size()) {
    if (message.size() < kLittleEndianCdr.size()) {
        throw KRCdrError("a CDR message has at least 4 bytes, this one has " +
                         std::to_string(message.size()));
    }
    if (message[0] != kLittleEndianCdr[0] || message[1] != kLittleEndianCdr[1]) {
        std::array<char, 64> text{};
        std::snprintf(text.data(), text.size(), "encoding 0x%02x%02x is not little-endian CDR (0x0001)",
                      message[0], message[1]);
        throw KRCdrError(text.data());
    }
}

std::string_view KRCdrReader::readString() {
    const std::size_t length = readLength(1);
    if (length == 0) {
        return {}; // some writers leave out the final zero of an empty string
    }
    const KRBytes bytes = take(length);
    if (bytes.back() != 0) {
        throw KRCdrError("a string does not end with a zero byte");
    }
    return {reinterpret_cast<const char*>(bytes.data()), length - 1};
}

std::size_t KRCdrReader::readLength(std::size_t elementSize) {
    const std::size_t elements = read<std::uint32_t>();
    if (elements > countBytesLeft() / elementSize) {
        throw KRCdrError(std::to_string(elements) + " elements do not fit in the " +
                         std::to_string(countBytesLeft()) + " bytes left");
    }
    return elements;
}

void KRCdrReader::align(std::size_t size) {
    const std::size_t read = position_ - kLittleEndianCdr.size();
    take((size - read % size) % size);
}

KRBytes KRCdrReader::take(std::size_t size) {
    if (size > countBytesLeft()) {
        throw KRCdrError("the message ends early: " + std::to_string(size) + " bytes are needed at offset " +
                         std::to_string(position_) + " of " + std::to_string(message_.size()));
    }
    const KRBytes bytes = message_.subspan(position_, size);
    position_ += size;
    return bytes;
}

} // namespace KR
