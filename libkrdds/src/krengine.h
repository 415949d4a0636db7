#pragma once

#include <dds/dds.h>

#ifdef __cplusplus
extern "C" {
#endif
#pragma GCC visibility push(hidden)

// Functions of the engine that its public interface lacks.

struct ddsi_domaingv; // the engine's instance of a domain; createMessageTopic() gives it

/// Port at which other participants address this process.
uint32_t krGetPort(const struct ddsi_domaingv* engine);

/// Forgets a remote participant, as if its lease had expired. No effect if it is unknown. It is rediscovered when it
/// sends its next announcement. Thread-safe.
void krForgetParticipant(struct ddsi_domaingv* engine, const dds_guid_t* participant);

/// Has the readers of a reliable writer of this process acknowledge its next sample as soon as they have it, instead of
/// at the next heartbeat, up to 100 ms later. No effect if there is no such writer. Thread-safe.
void krHastenAcknowledgement(struct ddsi_domaingv* engine, const dds_guid_t* writer);

/// Sets how long writers of this process wait for acknowledgements before they repeat their heartbeat. Thread-safe.
/// \param interval  nanoseconds
void krSetHeartbeatInterval(struct ddsi_domaingv* engine, int64_t interval);

/// Has the kernel drop what others send to the sockets for discovery, or no longer. \return false: it refuses. Thread-safe.
bool krSetDiscoveryDeaf(struct ddsi_domaingv* engine, bool deaf);

/// Has the engine ignore announcements of a remote participant, or take notice of them again: then it is discovered when it
/// sends the next one. \return whether the engine has discovered it already, which this does not change. Thread-safe.
bool krIgnoreParticipant(struct ddsi_domaingv* engine, const dds_guid_t* participant, bool ignored);

/// Has the kernel drop what ignored participants send to everybody's socket for discovery, which costs a tenth of having
/// the engine do it. Call it after krIgnoreParticipant(). Thread-safe.
void krFilterIgnored(struct ddsi_domaingv* engine);

#pragma GCC visibility pop
#ifdef __cplusplus
}
#endif
