#pragma once

#include "krbytes.hpp"

#include <dds/dds.h>

struct ddsi_serdata;

namespace KR {

/// A topic of messages whose bytes the engine takes and gives as they are, so that pixels are copied only where it
/// splits a message into fragments and puts it together again. \throws KRError the engine refuses
dds_entity_t createMessageTopic(dds_entity_t participant, const char* topicName, const char* typeName);

/// Writes a message. Waits while the reader is behind, until it has caught up or is gone.
/// \return the engine's code: 0, or negative for an error
dds_return_t writeMessage(dds_entity_t writer, KRComposedBytes message);

/// Calls `function` with each message that has arrived. \return how many have
template <class Function>
std::size_t takeMessages(dds_entity_t reader, Function function);

/// The bytes of one message that was taken; gives the engine's data back.
KRReceivedBytes receive(ddsi_serdata* data);

template <class Function>
std::size_t takeMessages(dds_entity_t reader, Function function) {
    constexpr std::uint32_t kMost = 16;
    std::size_t taken = 0;
    for (;;) {
        ddsi_serdata* data[kMost] = {};
        dds_sample_info_t info[kMost];
        const dds_return_t count = dds_takecdr(reader, data, kMost, info, DDS_ANY_STATE);
        for (dds_return_t i = 0; i < count; ++i) {
            const KRReceivedBytes message = receive(data[i]);
            if (info[i].valid_data) {
                ++taken;
                function(message);
            }
        }
        if (count < static_cast<dds_return_t>(kMost)) {
            return taken;
        }
    }
}

} // namespace KR
