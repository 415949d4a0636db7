#pragma once

#include <dds/dds.h>

#ifdef __cplusplus
extern "C" {
#endif

// What the engine can do, but not through its public interface.

struct ddsi_domaingv; // the engine's instance of a domain; createMessageTopic() gives it

/// Forgets a participant of another process, as if its lease were over. Without effect if it is not known. It is
/// discovered anew when it shows itself again. Thread-safe.
void krForgetParticipant(struct ddsi_domaingv* engine, const dds_guid_t* participant);

/// Has the readers of a reliable writer of this process acknowledge its next sample as soon as they have it, instead of
/// at the next heartbeat, which may be 100 ms away. Without effect if there is no such writer. Thread-safe.
void krHastenAcknowledgement(struct ddsi_domaingv* engine, const dds_guid_t* writer);

#ifdef __cplusplus
}
#endif
