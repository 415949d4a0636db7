#pragma once

#include <dds/dds.h>

#ifdef __cplusplus
extern "C" {
#endif

// What the engine can do, but not through its public interface.

struct ddsi_domaingv; // the engine's instance of a domain; createMessageTopic() gives it

/// Has the next message of a writer ask all its readers to acknowledge it at once. Otherwise the engine asks at most ten
/// times a second, and waiting for an acknowledgement takes that long. Without effect on a writer that is gone.
/// Thread-safe.
void krRequestPromptAcks(struct ddsi_domaingv* engine, dds_entity_t writer);

/// Forgets a participant of another process, as if its lease were over. Without effect if it is not known. It is
/// discovered anew when it shows itself again. Thread-safe.
void krForgetParticipant(struct ddsi_domaingv* engine, const dds_guid_t* participant);

#ifdef __cplusplus
}
#endif
