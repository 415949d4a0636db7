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

#ifdef __cplusplus
}
#endif
