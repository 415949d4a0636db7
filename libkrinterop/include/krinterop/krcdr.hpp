#pragma once

#include "krplatform/krexport.hpp"

#include <bit>
#include <concepts>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <span>
#include <stdexcept>
#include <string>
#include <string_view>
#include <type_traits>
#include <vector>

static_assert(std::endian::native == std::endian::little, "numbers are copied in native byte order");

namespace KR {

/// A read-only view of bytes.
using KRBytes = std::span<const unsigned char>;

/// A message that is not well-formed CDR.
class KR_EXPORT KRCdrError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
    ~KRCdrError() override;
};

namespace detail {
/// Types that CDR stores as themselves, aligned to their size.
template <class T>
concept CdrNumber = std::is_arithmetic_v<T> && !std::same_as<T, bool> && sizeof(T) <= 8;
} // namespace detail

/// Writes a message in CDR, little-endian (OMG XTypes 7.4.1, "plain CDR" version 1), as ROS 2 and DDS do.
///
/// A message begins with four bytes that name the encoding. Numbers are aligned to their size, counted from the end of
/// these four; a string is its length with the final zero, then its bytes and the zero; a sequence is its length and
/// then its elements. Reentrant.
class KR_EXPORT KRCdrWriter {
public:
    KRCdrWriter();

    /// Appends a number, aligned to its size.
    template <detail::CdrNumber T>
    void write(T number) {
        align(sizeof number);
        append(&number, sizeof number);
    }
    /// One byte, 0 or 1.
    void write(bool value) { write(static_cast<std::uint8_t>(value ? 1 : 0)); }
    /// \throws KRCdrError longer than 32 bits can count
    void write(std::string_view text);
    /// The same for a text that ends with a zero.
    void write(const char* text) { write(std::string_view(text)); }
    /// The number of elements of a sequence; its elements follow.
    /// \throws KRCdrError it does not fit 32 bits
    void writeLength(std::size_t elements);
    /// Raw bytes: the elements of a sequence of uint8.
    void writeBytes(KRBytes bytes) { append(bytes.data(), bytes.size()); }

    /// The message so far.
    const std::vector<unsigned char>& getBytes() const noexcept { return bytes_; }
    /// The same; leaves the writer empty.
    std::vector<unsigned char> takeBytes() noexcept { return std::move(bytes_); }

private:
    void align(std::size_t size);
    void append(const void* from, std::size_t size);

    std::vector<unsigned char> bytes_;
};

/// Reads a message in CDR as KRCdrWriter writes it. Every length is checked against the bytes that are left before
/// anything is read or allocated. Refers to the message, which must outlive the reader. Reentrant.
class KR_EXPORT KRCdrReader {
public:
    /// \throws KRCdrError shorter than 4 bytes; an encoding other than little-endian CDR version 1, which is named
    explicit KRCdrReader(KRBytes message);

    /// \throws KRCdrError the message ends too early
    template <detail::CdrNumber T>
    T read() {
        align(sizeof(T));
        T number;
        std::memcpy(&number, take(sizeof(T)).data(), sizeof(T));
        return number;
    }
    /// Any byte but 0 is true. \throws KRCdrError as read()
    bool readBool() { return read<std::uint8_t>() != 0; }
    /// Refers to the message; without the final zero.
    /// \throws KRCdrError the message ends too early; the final zero is missing
    std::string_view readString();
    /// The number of elements of a sequence that follow.
    /// \param elementSize  least number of bytes of each
    /// \throws KRCdrError the message ends too early, or has no room for that many elements
    std::size_t readLength(std::size_t elementSize);
    /// The next raw bytes; refers to the message. \throws KRCdrError the message ends too early
    KRBytes readBytes(std::size_t size) { return take(size); }

    /// Number of unread bytes.
    std::size_t countBytesLeft() const noexcept { return message_.size() - position_; }

private:
    void align(std::size_t size);
    KRBytes take(std::size_t size);

    KRBytes message_;
    std::size_t position_;
};

} // namespace KR
