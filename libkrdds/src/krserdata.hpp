#pragma once

#include "krbytes.hpp"

#include <dds/dds.h>

#include <memory>

struct ddsi_domaingv;
struct ddsi_serdata;

namespace KR {

/// Creates a topic whose messages the engine sends and receives as bytes, so that pixels are copied only when it splits a
/// message into fragments and reassembles it.
/// \param engine  receives the engine's instance of the domain unless null
/// \throws KRError the engine refuses
dds_entity_t createMessageTopic(dds_entity_t participant, const char* topicName, const char* typeName,
                                ddsi_domaingv** engine = nullptr);

/// Writes a message. Waits while the reader is behind, at most the writer's maximum blocking time.
/// \return the engine's code: 0, DDS_RETCODE_TIMEOUT if the message was not written, or another negative one
dds_return_t writeMessage(dds_entity_t writer, const std::shared_ptr<const KRComposedBytes>& message);

/// A received message.
struct KRTakenMessage {
    KRReceivedBytes bytes;
    dds_instance_handle_t writer; ///< publication handle
};

/// Takes all received messages and calls `function` with each. \return their number
template <class Function>
std::size_t takeMessages(dds_entity_t reader, Function function);

/// The bytes of a message held by the engine.
KRReceivedBytes readBytes(const ddsi_serdata* data);

/// Returns a message to the engine.
struct KRMessageRelease {
    void operator()(ddsi_serdata* data) const noexcept;
};

template <class Function>
std::size_t takeMessages(dds_entity_t reader, Function function) {
    constexpr std::uint32_t kMost = 16;
    std::size_t taken = 0;
    for (;;) {
        ddsi_serdata* data[kMost] = {};
        dds_sample_info_t info[kMost];
        const dds_return_t count = dds_takecdr(reader, data, kMost, info, DDS_ANY_STATE);
        std::unique_ptr<ddsi_serdata, KRMessageRelease> owned[kMost]; // returned even if `function` throws
        for (dds_return_t i = 0; i < count; ++i) {
            owned[i].reset(data[i]);
        }
        for (dds_return_t i = 0; i < count; ++i) {
            if (info[i].valid_data) {
                ++taken;
                const KRTakenMessage message{readBytes(owned[i].get()), info[i].publication_handle};
                owned[i].reset();
                function(message);
            }
        }
        if (count < static_cast<dds_return_t>(kMost)) {
            return taken;
        }
    }
}

} // namespace KR
