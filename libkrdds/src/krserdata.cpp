#include "krserdata.hpp"

#include "krddsdomain.hpp"

// The engine's interface for user-defined types. Its C headers do not compile cleanly with our warnings.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wconversion"
#pragma GCC diagnostic ignored "-Wpedantic"
#pragma GCC diagnostic ignored "-Wshadow"
#pragma GCC diagnostic ignored "-Wunused-parameter"
#include <dds/ddsi/ddsi_serdata.h>
#include <dds/ddsi/ddsi_sertype.h>
#include <dds/ddsi/q_radmin.h>
#pragma GCC diagnostic pop

#include <algorithm>
#include <atomic>
#include <cstring>
#include <memory>
#include <new>
#include <vector>

namespace KR {

namespace {

/// A message in the engine, composed here or received.
struct Message : ddsi_serdata {
    std::shared_ptr<const KRComposedBytes> composed;
    std::vector<KRComposedBytes::Piece> pieces; // of `composed`, or all of `received`
    KRReceivedBytes received;
    std::uint32_t size = 0;
    mutable std::atomic<std::uint32_t> uses = 0;

    void copyTo(std::size_t offset, std::size_t count, unsigned char* to) const {
        for (const auto& piece : pieces) {
            if (piece.offset + piece.size <= offset || piece.offset >= offset + count) {
                continue;
            }
            const std::size_t first = std::max(offset, piece.offset);
            const std::size_t end = std::min(offset + count, piece.offset + piece.size);
            std::memcpy(to + (first - offset), piece.data + (first - piece.offset), end - first);
        }
    }
};

struct MessageType : ddsi_sertype {};

const Message& asMessage(const ddsi_serdata* data) {
    return *static_cast<const Message*>(data);
}

/// Marks the use of a message on one of the engine's threads. The engine synchronizes them in a way that
/// ThreadSanitizer does not see; the mark shows it.
class Use {
public:
    explicit Use(const ddsi_serdata* data) noexcept : message_(asMessage(data)) { mark(); }
    ~Use() { mark(); }
    Use(const Use&) = delete;
    Use& operator=(const Use&) = delete;
    const Message* operator->() const noexcept { return &message_; }
    const Message& operator*() const noexcept { return message_; }

private:
    void mark() const noexcept { message_.uses.fetch_add(1, std::memory_order_acq_rel); }
    const Message& message_;
};

std::unique_ptr<Message> makeMessage(const ddsi_sertype* type, ddsi_serdata_kind kind) {
    auto message = std::make_unique<Message>();
    ddsi_serdata_init(message.get(), type, kind);
    return message;
}

std::unique_ptr<Message> makeReceived(const ddsi_sertype* type, ddsi_serdata_kind kind,
                                      KRReceivedBytes bytes) {
    auto message = makeMessage(type, kind);
    message->received = std::move(bytes);
    message->size = static_cast<std::uint32_t>(message->received.size);
    message->pieces.push_back({message->received.bytes.get(), message->received.size, 0});
    const Use made(message.get());
    return message;
}

// Callbacks of the engine. They must not throw, as it is written in C.

/// The function's result; null if out of memory, so the engine drops the message.
template <class Make>
ddsi_serdata* orNull(Make make) noexcept {
    try {
        return make().release();
    } catch (const std::bad_alloc&) {
        return nullptr;
    }
}

bool haveEqualKeys(const ddsi_serdata*, const ddsi_serdata*) noexcept {
    return true; // the type has no keys
}

std::uint32_t getSize(const ddsi_serdata* data) noexcept {
    return Use(data)->size;
}

/// The message of `size` bytes that `fill` writes. \param fill  returns false if bytes are missing
template <class Fill>
ddsi_serdata* receive(const ddsi_sertype* type, ddsi_serdata_kind kind, std::size_t size,
                      Fill fill) noexcept {
    if (kind != SDK_DATA || size > KRReceivedBytes::kMax) {
        return nullptr;
    }
    return orNull([&]() -> std::unique_ptr<Message> {
        KRReceivedBytes bytes = KRReceivedBytes::allocate(size);
        return fill(bytes.bytes.get()) ? makeReceived(type, kind, std::move(bytes)) : nullptr;
    });
}

ddsi_serdata* makeFromFragments(const ddsi_sertype* type, ddsi_serdata_kind kind, const nn_rdata* fragment,
                                std::size_t size) noexcept {
    return receive(type, kind, size, [&](unsigned char* to) {
        std::size_t offset = 0;
        for (; fragment != nullptr; fragment = fragment->nextfrag) {
            const std::size_t end = std::min<std::size_t>(fragment->maxp1, size);
            if (fragment->min > offset) {
                return false;
            }
            if (end > offset) {
                const unsigned char* payload =
                    NN_RMSG_PAYLOADOFF(fragment->rmsg, NN_RDATA_PAYLOAD_OFF(fragment));
                std::memcpy(to + offset, payload + (offset - fragment->min), end - offset);
                offset = end;
            }
        }
        return offset == size;
    });
}

ddsi_serdata* makeFromRuns(const ddsi_sertype* type, ddsi_serdata_kind kind, ddsrt_msg_iovlen_t count,
                           const ddsrt_iovec_t* runs, std::size_t size) noexcept {
    return receive(type, kind, size, [&](unsigned char* to) {
        std::size_t offset = 0;
        for (std::size_t i = 0; i < static_cast<std::size_t>(count); ++i) {
            const std::size_t part = std::min<std::size_t>(runs[i].iov_len, size - offset);
            std::memcpy(to + offset, runs[i].iov_base, part);
            offset += part;
        }
        return offset == size;
    });
}

ddsi_serdata* makeFromKeyHash(const ddsi_sertype* type, const ddsi_keyhash*) noexcept {
    return orNull([&] { return makeMessage(type, SDK_KEY); });
}

/// The type of samples for dds_write() and similar functions is std::shared_ptr<const KRComposedBytes>.
ddsi_serdata* makeFromSample(const ddsi_sertype* type, ddsi_serdata_kind kind, const void* sample) noexcept {
    return orNull([&] {
        auto message = makeMessage(type, kind);
        if (kind == SDK_DATA) {
            message->composed = *static_cast<const std::shared_ptr<const KRComposedBytes>*>(sample);
            message->size = static_cast<std::uint32_t>(message->composed->size());
            message->pieces = message->composed->getPieces();
        }
        const Use made(message.get());
        return message;
    });
}

void copyOut(const ddsi_serdata* data, std::size_t offset, std::size_t size, void* to) noexcept {
    Use(data)->copyTo(offset, size, static_cast<unsigned char*>(to));
}

const KRComposedBytes::Piece* findPieceAround(const Message& message, std::size_t offset, std::size_t size) {
    for (const auto& piece : message.pieces) {
        if (offset >= piece.offset && offset + size <= piece.offset + piece.size) {
            return &piece;
        }
    }
    return nullptr;
}

ddsi_serdata* lend(const ddsi_serdata* data, std::size_t offset, std::size_t size,
                   ddsrt_iovec_t* run) noexcept {
    const Use message(data);
    run->iov_len = size;
    if (const auto* piece = findPieceAround(*message, offset, size)) {
        run->iov_base = const_cast<unsigned char*>(piece->data + (offset - piece->offset));
    } else { // spans pieces
        // At most a fragment, 65 kB; without memory for one the engine itself aborts.
        auto* copy = new unsigned char[size]; // NOLINT(bugprone-unhandled-exception-at-new)
        message->copyTo(offset, size, copy);
        run->iov_base = copy;
    }
    return ddsi_serdata_ref(data);
}

void takeBack(ddsi_serdata* data, const ddsrt_iovec_t* run) noexcept {
    const auto* base = static_cast<const unsigned char*>(run->iov_base);
    {
        const Use message(data);
        const bool ours = std::any_of(message->pieces.begin(), message->pieces.end(), [&](const auto& piece) {
            return base >= piece.data && base < piece.data + piece.size;
        });
        if (!ours) {
            delete[] base;
        }
    }
    ddsi_serdata_unref(data);
}

bool giveSample(const ddsi_serdata*, void*, void**, void*) noexcept {
    return false; // messages are only taken as bytes
}

bool giveUntypedSample(const ddsi_sertype*, const ddsi_serdata*, void*, void**, void*) noexcept {
    return false;
}

ddsi_serdata* makeUntyped(const ddsi_serdata* data) noexcept {
    return orNull([&] {
        auto message = makeMessage(data->type, SDK_KEY);
        message->type = nullptr;
        return message;
    });
}

void freeMessage(ddsi_serdata* data) noexcept {
    { const Use last(data); }
    delete static_cast<Message*>(data);
}

std::size_t print(const ddsi_sertype*, const ddsi_serdata* data, char* text, std::size_t size) noexcept {
    return static_cast<std::size_t>(std::snprintf(text, size, "%u bytes", Use(data)->size));
}

void getKeyHash(const ddsi_serdata*, ddsi_keyhash* hash, bool) noexcept {
    std::memset(hash, 0, sizeof *hash);
}

const ddsi_serdata_ops kMessageOperations = [] {
    ddsi_serdata_ops operations{};
    operations.eqkey = haveEqualKeys;
    operations.get_size = getSize;
    operations.from_ser = makeFromFragments;
    operations.from_ser_iov = makeFromRuns;
    operations.from_keyhash = makeFromKeyHash;
    operations.from_sample = makeFromSample;
    operations.to_ser = copyOut;
    operations.to_ser_ref = lend;
    operations.to_ser_unref = takeBack;
    operations.to_sample = giveSample;
    operations.to_untyped = makeUntyped;
    operations.untyped_to_sample = giveUntypedSample;
    operations.free = freeMessage;
    operations.print = print;
    operations.get_keyhash = getKeyHash;
    return operations;
}();

void freeType(ddsi_sertype* type) noexcept {
    ddsi_sertype_fini(type);
    delete static_cast<MessageType*>(type);
}

void zeroSamples(const ddsi_sertype*, void*, std::size_t) noexcept {}

void reallocateSamples(void** samples, const ddsi_sertype*, void*, std::size_t, std::size_t count) noexcept {
    std::fill_n(samples, count, nullptr); // samples are never read
}

void freeSamples(const ddsi_sertype*, void**, std::size_t, dds_free_op_t) noexcept {}

bool areEqual(const ddsi_sertype*, const ddsi_sertype*) noexcept {
    return true; // the names are equal, and nothing else matters
}

std::uint32_t getHash(const ddsi_sertype*) noexcept {
    return 0;
}

ddsi_sertype* derive(const ddsi_sertype* type, dds_data_representation_id_t,
                     dds_type_consistency_enforcement_qospolicy_t) noexcept {
    return const_cast<ddsi_sertype*>(type); // the type itself, without a reference, means "nothing to derive"
}

const ddsi_sertype_ops kTypeOperations = [] {
    ddsi_sertype_ops operations{};
    operations.version = ddsi_sertype_v0;
    operations.free = freeType;
    operations.zero_samples = zeroSamples;
    operations.realloc_samples = reallocateSamples;
    operations.free_samples = freeSamples;
    operations.equal = areEqual;
    operations.hash = getHash;
    operations.derive_sertype = derive;
    return operations;
}();

} // namespace

dds_entity_t createMessageTopic(dds_entity_t participant, const char* topicName, const char* typeName,
                                ddsi_domaingv** engine) {
    auto* type = new MessageType;
    ddsi_sertype_init(type, typeName, &kTypeOperations, &kMessageOperations, true);
    type->allowed_data_representation = DDS_DATA_REPRESENTATION_FLAG_XCDR1;
    ddsi_sertype* given = type; // ownership passes unless creation fails
    const dds_entity_t topic =
        dds_create_topic_sertype(participant, topicName, &given, nullptr, nullptr, nullptr);
    if (topic < 0) {
        ddsi_sertype_unref(type);
    } else if (engine != nullptr) {
        *engine = static_cast<ddsi_domaingv*>(ddsrt_atomic_ldvoidp(&given->gv));
    }
    return checkDDS(topic, "topic");
}

dds_return_t writeMessage(dds_entity_t writer, const std::shared_ptr<const KRComposedBytes>& message) {
    return dds_write(writer, &message);
}

KRReceivedBytes readBytes(const ddsi_serdata* data) {
    const Use message(data);
    KRReceivedBytes bytes = message->received;
    if (!bytes.bytes && message->size > 0) { // from a broker of the same process
        bytes = KRReceivedBytes::allocate(message->size);
        message->copyTo(0, message->size, bytes.bytes.get());
    }
    return bytes;
}

void KRMessageRelease::operator()(ddsi_serdata* data) const noexcept {
    ddsi_serdata_unref(data);
}

} // namespace KR
