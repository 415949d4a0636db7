#include "krvaluecode.hpp"

#include <krplatform/krerror.hpp>

#include <msgpack.hpp>

#include <array>
#include <limits>
#include <span>
#include <string>
#include <vector>

namespace KR {

namespace {

constexpr std::size_t kShared = 4096;   // binaries of this size or larger are not copied
constexpr std::int8_t kOutsideType = 1; // extension of messages on this machine: a binary outside the body
constexpr std::uint32_t kOutsideSize = 4;

/// Output buffer for msgpack.
struct Sink {
    KRComposedBytes& bytes;
    void write(const char* data, std::size_t size) { bytes.append(data, size); }
};

class Encoder {
public:
    /// \param outside  receives the binaries to send separately; null: none
    explicit Encoder(KRComposedBytes& bytes, std::vector<KRBinary>* outside = nullptr)
        : bytes_(bytes), outside_(outside), sink_{bytes}, packer_(sink_) {}

    void encode(const KRValue& value, std::size_t depth) {
        if (++values_ > KRValueBounds::kValues) {
            refuse("more than " + std::to_string(KRValueBounds::kValues) + " values");
        }
        switch (value.getType()) {
        case KRValue::Type::Invalid:
            packer_.pack_nil();
            break;
        case KRValue::Type::Int:
            packer_.pack_int32(value.to<int>());
            break;
        case KRValue::Type::Float:
            packer_.pack_float(value.to<float>());
            break;
        case KRValue::Type::String: {
            const auto text = value.to<std::string>();
            check(text.size());
            packer_.pack_str(static_cast<std::uint32_t>(text.size()));
            packer_.pack_str_body(text.data(), static_cast<std::uint32_t>(text.size()));
            break;
        }
        case KRValue::Type::Binary: {
            const KRBinary& binary = value.GetBinary();
            check(binary.size());
            if (outside_ != nullptr && binary.size() >= KRLocalMessage::kSharedFrom &&
                outside_->size() < KRLocalMessage::kMaxBinaries) {
                packOutside(binary);
                break;
            }
            packer_.pack_bin(static_cast<std::uint32_t>(binary.size()));
            if (outside_ == nullptr && binary.size() >= kShared) {
                bytes_.appendShared(binary);
            } else {
                bytes_.append(binary.data(), binary.size());
            }
            break;
        }
        case KRValue::Type::Array:
            if (depth >= KRValueBounds::kDepth) {
                refuse("arrays nested more than " + std::to_string(KRValueBounds::kDepth) + " deep");
            }
            check(value.getSize());
            packer_.pack_array(static_cast<std::uint32_t>(value.getSize()));
            for (std::size_t i = 0; i < value.getSize(); ++i) {
                encode(value[i], depth + 1);
            }
            break;
        }
    }

private:
    void packOutside(const KRBinary& binary) {
        std::array<char, kOutsideSize> index{};
        const std::size_t number = outside_->size();
        for (std::size_t i = 0; i < index.size(); ++i) {
            index[i] = static_cast<char>(number >> (8 * (index.size() - 1 - i)));
        }
        packer_.pack_ext(index.size(), kOutsideType);
        packer_.pack_ext_body(index.data(), index.size());
        outside_->push_back(binary);
        outsideBytes_ += binary.size();
    }
    void check(std::size_t more) const {
        if (more > KRValueBounds::kBytes || bytes_.size() + outsideBytes_ + more > KRValueBounds::kBytes) {
            refuse("more than " + std::to_string(KRValueBounds::kBytes) + " bytes");
        }
    }
    [[noreturn]] static void refuse(const std::string& why) {
        throw KRError("KRValue", "encode", "the value cannot be sent to another process: " + why);
    }

    KRComposedBytes& bytes_;
    std::vector<KRBinary>* const outside_;
    std::size_t outsideBytes_ = 0;
    Sink sink_;
    msgpack::packer<Sink> packer_;
    std::size_t values_ = 0;
};

/// Builds the value while msgpack parses. A function that returns false ends the parsing.
class Decoder : public msgpack::null_visitor {
public:
    /// \param received  owner of the bytes; null: none, and binaries are copied
    /// \param outside   binaries sent separately
    Decoder(const KRReceivedBytes* received, std::size_t maxValues, std::span<const KRBinary> outside = {})
        : received_(received), outside_(outside), maxValues_(maxValues) {}

    bool visit_nil() { return add(KRValue()); }
    bool visit_boolean(bool) { return fail("a boolean"); }
    bool visit_positive_integer(std::uint64_t value) {
        if (value > static_cast<std::uint64_t>(std::numeric_limits<std::int32_t>::max())) {
            return fail("an integer of more than 32 bits");
        }
        return add(static_cast<std::int32_t>(value));
    }
    bool visit_negative_integer(std::int64_t value) {
        if (value < std::numeric_limits<std::int32_t>::min()) {
            return fail("an integer of more than 32 bits");
        }
        return add(static_cast<std::int32_t>(value));
    }
    bool visit_float32(float value) { return add(value); }
    bool visit_float64(double) { return fail("a float of 64 bits"); }
    bool visit_str(const char* text, std::uint32_t size) { return add(std::string(text, size)); }
    bool visit_bin(const char* bytes, std::uint32_t size) {
        if (received_ == nullptr || size < kShared) {
            return add(KRBinary::copyOf(bytes, size));
        }
        const auto* first = reinterpret_cast<const unsigned char*>(bytes);
        return add(KRBinary(boost::shared_ptr<const unsigned char[]>(received_->bytes, first), size));
    }
    bool visit_ext(const char* bytes, std::uint32_t size) { // the first byte is the type
        if (outside_.empty() || size != 1 + kOutsideSize || bytes[0] != kOutsideType) {
            return fail("an extension");
        }
        std::size_t index = 0;
        for (std::uint32_t i = 1; i < size; ++i) {
            index = index << 8 | static_cast<unsigned char>(bytes[i]);
        }
        return index < outside_.size() ? add(outside_[index]) : fail("a binary that has not come");
    }
    bool start_array(std::uint32_t count) {
        if (open_.size() >= KRValueBounds::kDepth) {
            return fail("arrays are nested too deep");
        }
        if (count > maxValues_ - values_) {
            return fail("too many values");
        }
        open_.emplace_back(); // grows with received elements, not with the announced count
        return true;
    }
    bool end_array() {
        KRValue array(std::move(open_.back()));
        open_.pop_back();
        return add(std::move(array));
    }
    bool start_map(std::uint32_t) { return fail("a map"); }
    void parse_error(std::size_t, std::size_t) { fail("not msgpack"); }
    void insufficient_bytes(std::size_t, std::size_t) { fail("it is truncated"); }
    bool referenced() const { return false; }
    void set_referenced(bool) {}

    KRValue take() {
        if (!why_.empty() || !open_.empty() || !complete_) {
            throw KRMalformed("a value is malformed: " + (why_.empty() ? "it is truncated" : why_));
        }
        return std::move(result_);
    }

private:
    bool add(KRValue value) {
        if (++values_ > maxValues_) {
            return fail("too many values");
        }
        if (open_.empty()) {
            result_ = std::move(value);
            complete_ = true;
        } else {
            open_.back().push_back(std::move(value));
        }
        return true;
    }
    bool fail(const char* why) {
        if (why_.empty()) {
            why_ = why;
        }
        return false;
    }

    const KRReceivedBytes* const received_;
    const std::span<const KRBinary> outside_;
    const std::size_t maxValues_;
    std::vector<std::vector<KRValue>> open_; // arrays being read
    KRValue result_;
    bool complete_ = false;
    std::size_t values_ = 0;
    std::string why_;
};

} // namespace

KRComposedBytes encodeValue(const KRValue& value) {
    KRComposedBytes bytes;
    Encoder(bytes).encode(value, 0);
    return bytes;
}

void encodeValue(const KRValue& value, KRLocalMessage& message) {
    KRComposedBytes bytes;
    std::vector<KRBinary> binaries;
    Encoder(bytes, &binaries).encode(value, 0);
    message.body = std::move(bytes).takeOwn();
    message.binaries = std::move(binaries);
}

namespace {

KRValue decodeBytes(const char* bytes, std::size_t size, Decoder& decoder) {
    std::size_t read = 0;
    msgpack::parse(bytes, size, read, decoder);
    KRValue value = decoder.take();
    if (read != size) {
        throw KRMalformed("a value is malformed: there are bytes after it");
    }
    return value;
}

} // namespace

KRValue decodeValue(const KRReceivedBytes& received, std::size_t offset, std::size_t size,
                    std::size_t maxValues) {
    Decoder decoder(&received, maxValues);
    return decodeBytes(reinterpret_cast<const char*>(received.bytes.get()) + offset, size, decoder);
}

KRValue decodeValue(const KRLocalMessage& message) {
    Decoder decoder(nullptr, KRValueBounds::kValues, message.binaries);
    return decodeBytes(message.body.data(), message.body.size(), decoder);
}

} // namespace KR
