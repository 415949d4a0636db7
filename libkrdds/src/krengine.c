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

static bool setFilter(struct ddsi_tran_conn* connection, const struct sock_fprog* program) {
    return connection == NULL ||
           setsockopt(ddsi_conn_handle(connection), SOL_SOCKET,
                      program->len > 0 ? SO_ATTACH_FILTER : SO_DETACH_FILTER, program, sizeof *program) == 0;
}

bool krSetDiscoveryDeaf(struct ddsi_domaingv* engine, bool deaf) {
    struct sock_filter none = BPF_STMT(BPF_RET | BPF_K, 0); // of a packet passes
    const struct sock_fprog program = {deaf ? 1 : 0, &none};
    const bool succeeds = setFilter(engine->disc_conn_mc, &program);
    return setFilter(engine->disc_conn_uc, &program) && succeeds;
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

void krFilterIgnored(struct ddsi_domaingv* engine) {
    enum {
        kHeader =
            8 + 20,  // of UDP and RTPS, which ends with the prefix of the sender's GUID (DDSI-RTPS, 9.4.4)
        kMost = 400, // as many as fit net.core.optmem_max by default
        kForEach = 5,
        kPass = 0xffff
    };
    struct sock_filter* const code = ddsrt_malloc_s((5 + kForEach * kMost) * sizeof *code);
    if (code == NULL) {
        return; // the engine ignores them
    }
    unsigned short length = 0;
    code[length++] = (struct sock_filter)BPF_STMT(BPF_LD | BPF_W | BPF_LEN, 0);
    code[length++] = (struct sock_filter)BPF_JUMP(BPF_JMP | BPF_JGE | BPF_K, kHeader, 1, 0);
    code[length++] = (struct sock_filter)BPF_STMT(BPF_RET | BPF_K, kPass);
    code[length++] = (struct sock_filter)BPF_STMT(BPF_LD | BPF_W | BPF_ABS, kHeader - 8);
    const unsigned short begin = length;
    struct deleted_participants_admin* const list = engine->deleted_participants;
    ddsrt_mutex_lock(&list->deleted_participants_lock);
    const struct deleted_participant* each = ddsrt_avl_find_min(&ignoredOrder, &list->deleted_participants);
    for (; each != NULL && length < begin + kForEach * (kMost - 1);
         each = ddsrt_avl_find_succ(&ignoredOrder, &list->deleted_participants, each)) {
        if (each->for_what == 0 || each->t_prune.v != DDS_NEVER) {
            continue;
        }
        // The last eight bytes of a prefix are unique: the engine draws them.
        const ddsi_guid_prefix_t* const prefix = &each->guid.prefix;
        code[length++] =
            (struct sock_filter)BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, prefix->u[1], 0, kForEach - 1);
        code[length++] = (struct sock_filter)BPF_STMT(BPF_LD | BPF_W | BPF_ABS, kHeader - 4);
        code[length++] = (struct sock_filter)BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, prefix->u[2], 0, 1);
        code[length++] = (struct sock_filter)BPF_STMT(BPF_RET | BPF_K, 0);
        code[length++] = (struct sock_filter)BPF_STMT(BPF_RET | BPF_K, kPass);
    }
    ddsrt_mutex_unlock(&list->deleted_participants_lock);
    code[length] = (struct sock_filter)BPF_STMT(BPF_RET | BPF_K, kPass);
    const struct sock_fprog program = {length > begin ? length + 1 : 0, code};
    // If it fails, the last one must not stay, and without that one there may be room.
    if (!setFilter(engine->disc_conn_mc, &program)) {
        const struct sock_fprog nothing = {0, NULL};
        setFilter(engine->disc_conn_mc, &nothing);
        setFilter(engine->disc_conn_mc, &program); // otherwise the engine ignores them
    }
    ddsrt_free(code);
}
