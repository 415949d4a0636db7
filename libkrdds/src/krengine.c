// In C, because the engine's own headers that this needs are no C++.

#include "krengine.h"

// Each of these needs the ones before it.
// clang-format off
#include <dds/ddsi/ddsi_domaingv.h>
#include <dds/ddsi/ddsi_entity.h>
#include <dds/ddsi/ddsi_entity_index.h>
#include <dds/ddsi/q_radmin.h>
#include <dds/ddsi/ddsi_endpoint.h>
#include <dds/ddsi/ddsi_participant.h>
#include <dds/ddsi/ddsi_proxy_participant.h>
#include <dds/ddsi/ddsi_tran.h>
// clang-format on
#include <dds/ddsi/q_bswap.h>
#include <dds/ddsi/q_thread.h>

#include <dds/ddsrt/heap.h>

#include <linux/filter.h>
#include <sys/socket.h>

#include <stddef.h>
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

uint32_t krGetPort(const struct ddsi_domaingv* engine) {
    return engine->loc_meta_uc.port;
}

bool krSetDiscoveryDeaf(struct ddsi_domaingv* engine, bool deaf) {
    struct sock_filter none = BPF_STMT(BPF_RET | BPF_K, 0); // of a packet passes
    const struct sock_fprog program = {1, &none};
    struct ddsi_tran_conn* const connections[] = {engine->disc_conn_mc, engine->disc_conn_uc};
    bool succeeds = true;
    for (size_t i = 0; i < sizeof connections / sizeof connections[0]; ++i) {
        if (connections[i] != NULL) {
            const int option = deaf ? SO_ATTACH_FILTER : SO_DETACH_FILTER;
            succeeds = setsockopt(ddsi_conn_handle(connections[i]), SOL_SOCKET, option, &program,
                                  sizeof program) == 0 &&
                       succeeds;
        }
    }
    return succeeds;
}

// Announcements of a participant that was deleted a moment ago may still be under way: the engine keeps a list of those that
// it ignores for a while, in this order.
static const ddsrt_avl_treedef_t ignoredOrder =
    DDSRT_AVL_TREEDEF_INITIALIZER(offsetof(struct deleted_participant, avlnode),
                                  offsetof(struct deleted_participant, guid), ddsi_compare_guid, 0);

bool krIgnoreParticipant(struct ddsi_domaingv* engine, const dds_guid_t* participant, bool ignored) {
    const ddsi_guid_t wanted = convert(participant);
    struct deleted_participants_admin* const list = engine->deleted_participants;
    ddsrt_avl_ipath_t place;
    ddsrt_mutex_lock(&list->deleted_participants_lock);
    struct deleted_participant* found =
        ddsrt_avl_lookup_ipath(&ignoredOrder, &list->deleted_participants, &wanted, &place);
    if (found == NULL && ignored && (found = ddsrt_malloc_s(sizeof *found)) != NULL) {
        found->guid = wanted;
        ddsrt_avl_insert_ipath(&ignoredOrder, &list->deleted_participants, found, &place);
    }
    if (found != NULL) { // for ever, or no longer: the engine removes it
        found->for_what = ignored ? DPG_REMOTE : 0;
        found->t_prune.v = ignored ? DDS_NEVER : 0;
    }
    ddsrt_mutex_unlock(&list->deleted_participants_lock);
    struct thread_state* const self = lookup_thread_state();
    thread_state_awake(self, engine);
    const bool known = entidx_lookup_proxy_participant_guid(engine->entity_index, &wanted) != NULL;
    thread_state_asleep(self);
    return known;
}
