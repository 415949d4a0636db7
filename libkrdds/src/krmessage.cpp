#include "krmessage.hpp"

#include "krvaluecode.hpp"

#include <array>
#include <bit>
#include <cstring>

namespace KR {

namespace {

static_assert(std::endian::native == std::endian::little, "messages are written little-endian");

constexpr std::size_t kHeader = 4;      // encoding and options; alignment is relative to its end
constexpr std::size_t kMaxName = 65536; // bytes of an identity, module or method name

class Writer {
public:
    Writer() {
        constexpr std::array<unsigned char, kHeader> kLittleEndianCdr{0, 1, 0, 0};
        bytes_.append(kLittleEndianCdr.data(), kLittleEndianCdr.size());
    }

    template <class Number>
    void write(Number number) {
        align(sizeof number);
        bytes_.append(&number, sizeof number);
    }
    void write(const std::string& text) {
        write(static_cast<std::uint32_t>(text.size() + 1));
        bytes_.append(text.c_str(), text.size() + 1);
    }
    void write(const KRComposedBytes& octets) {
        write(static_cast<std::uint32_t>(octets.size()));
        bytes_.appendShared(octets);
    }
    /// The message, padded to a multiple of four; the options hold the number of padding bytes.
    KRComposedBytes finish() {
        const auto before = bytes_.size();
        align(4);
        const auto padding = static_cast<unsigned char>(bytes_.size() - before);
        bytes_.overwrite(3, &padding, 1);
        return std::move(bytes_);
    }

private:
    void align(std::size_t to) {
        constexpr std::array<unsigned char, 8> kZeros{};
        const std::size_t over = (bytes_.size() - kHeader) % to;
        bytes_.append(kZeros.data(), over == 0 ? 0 : to - over);
    }

    KRComposedBytes bytes_;
};

class Reader {
public:
    explicit Reader(const KRReceivedBytes& message) : message_(message), end_(message.size) {
        if (end_ < kHeader || message.bytes[0] != 0 || message.bytes[1] != 1) {
            throw KRMalformed("a message is malformed: not little-endian CDR");
        }
    }

    template <class Number>
    Number read() {
        const std::size_t over = (at_ - kHeader) % sizeof(Number);
        skip(over == 0 ? 0 : sizeof(Number) - over);
        Number number;
        std::memcpy(&number, &message_.bytes[static_cast<std::ptrdiff_t>(skip(sizeof number))],
                    sizeof number);
        return number;
    }
    std::string readString() {
        const auto size = read<std::uint32_t>();
        if (size == 0 || size > kMaxName) {
            throw KRMalformed("a message is malformed: a name of " + std::to_string(size) + " bytes");
        }
        const char* text = reinterpret_cast<const char*>(message_.bytes.get()) + skip(size);
        if (text[size - 1] != '\0') {
            throw KRMalformed("a message is malformed: a name is not terminated");
        }
        return {text, size - 1};
    }
    KREncodedValue readOctets() {
        const auto size = read<std::uint32_t>();
        return {message_, skip(size), size};
    }

private:
    /// Skips that many bytes. \return where they begin
    std::size_t skip(std::size_t bytes) {
        if (bytes > end_ - at_) {
            throw KRMalformed("a message is malformed: it is truncated");
        }
        const std::size_t first = at_;
        at_ += bytes;
        return first;
    }

    const KRReceivedBytes& message_;
    const std::size_t end_;
    std::size_t at_ = kHeader;
};

} // namespace

KRValue KREncodedValue::decode() const {
    return decodeValue(message, offset, size);
}

KRComposedBytes KRRequest::compose(const KRValue& withArguments) const {
    Writer writer;
    writer.write(broker);
    writer.write(sequence);
    writer.write(kind);
    writer.write(module);
    writer.write(method);
    writer.write(encodeValue(withArguments));
    return writer.finish();
}

KRRequest KRRequest::parse(const KRReceivedBytes& message) {
    Reader reader(message);
    KRRequest request;
    request.broker = reader.readString();
    request.sequence = reader.read<std::uint64_t>();
    request.kind = reader.read<std::uint32_t>();
    if (request.kind > Inquiry) {
        throw KRMalformed("a request is malformed: kind " + std::to_string(request.kind));
    }
    request.module = reader.readString();
    request.method = reader.readString();
    request.arguments = reader.readOctets();
    return request;
}

KRComposedBytes KRReply::compose(const KRValue& withValue) const {
    Writer writer;
    writer.write(broker);
    writer.write(sequence);
    writer.write(status);
    writer.write(encodeValue(withValue));
    return writer.finish();
}

KRReply KRReply::parse(const KRReceivedBytes& message) {
    Reader reader(message);
    KRReply reply;
    reply.broker = reader.readString();
    reply.sequence = reader.read<std::uint64_t>();
    reply.status = reader.read<std::uint32_t>();
    if (reply.status > Unknown) {
        throw KRMalformed("a reply is malformed: status " + std::to_string(reply.status));
    }
    reply.value = reader.readOctets();
    return reply;
}

} // namespace KR
