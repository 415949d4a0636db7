// In C, because the engine's own headers that this needs are no C++.

#include "krengine.h"

// Each of these needs the ones before it.
// clang-format off
#include <dds/ddsi/ddsi_domaingv.h>
#include <dds/ddsi/ddsi_entity.h>
#include <dds/ddsi/ddsi_entity_index.h>
#include <dds/ddsi/q_radmin.h>
#include <dds/ddsi/ddsi_endpoint.h>
#include <dds/ddsi/ddsi_proxy_participant.h>
// clang-format on
#include <dds/ddsi/q_bswap.h>
#include <dds/ddsi/q_thread.h>

#include <string.h>

static ddsi_guid_t convert(const dds_guid_t* guid) {
    ddsi_guid_t converted;
    memcpy(&converted, guid, sizeof converted);
    return nn_ntoh_guid(converted);
}

void krForgetParticipant(struct ddsi_domaingv* engine, const dds_guid_t* participant) {
    const ddsi_guid_t wanted = convert(participant);
    struct thread_state* const self = lookup_thread_state();
    thread_state_awake(self, engine);
    ddsi_delete_proxy_participant_by_guid(engine, &wanted, ddsrt_time_wallclock(), 1);
    thread_state_asleep(self);
}

void krHastenAcknowledgement(struct ddsi_domaingv* engine, const dds_guid_t* writer) {
    const ddsi_guid_t wanted = convert(writer);
    struct thread_state* const self = lookup_thread_state();
    thread_state_awake(self, engine);
    struct ddsi_writer* const found = entidx_lookup_writer_guid(engine->entity_index, &wanted);
    if (found != NULL) {
        ddsrt_mutex_lock(&found->e.lock);
        // A sample that follows another at once carries no request for acknowledgements: let it follow none.
        found->hbcontrol.t_of_last_write.v = 0;
        found->hbcontrol.t_of_last_ackhb.v = 0;
        ddsrt_mutex_unlock(&found->e.lock);
    }
    thread_state_asleep(self);
}

void krSetHeartbeatInterval(struct ddsi_domaingv* engine, int64_t interval) {
    __atomic_store_n(&engine->config.const_hb_intv_sched, interval, __ATOMIC_RELAXED);
}
