#pragma once

#include "krvision.h"

#include <patience.hpp>

#include <dds/dds.h>
#include <gtest/gtest.h>

#include <cstdint>
#include <memory>
#include <string>
#include <sys/types.h>
#include <utility>
#include <vector>

namespace KR::test {

using Qos = std::unique_ptr<dds_qos_t, void (*)(dds_qos_t*)>;

inline Qos makeQos(const char* partition) {
    Qos qos(dds_create_qos(), dds_delete_qos);
    dds_qset_reliability(qos.get(), DDS_RELIABILITY_RELIABLE, DDS_INFINITY);
    if (partition != nullptr) {
        dds_qset_partition1(qos.get(), partition);
        dds_qset_history(qos.get(), DDS_HISTORY_KEEP_ALL, 0);
    } else {
        dds_qset_durability(qos.get(), DDS_DURABILITY_TRANSIENT_LOCAL);
    }
    return qos;
}

/// A participant on the domain of a broker of this process.
class Stranger {
public:
    explicit Stranger(int domain, std::string name = "stranger")
        : participant_(dds_create_participant(domain, nullptr, nullptr)), name_(std::move(name)) {
        dds_guid_t guid{};
        dds_get_guid(participant_, &guid);
        for (const std::uint8_t byte : guid.v) {
            constexpr const char* kDigits = "0123456789abcdef";
            id_ += {kDigits[byte >> 4], kDigits[byte & 15]};
        }
    }
    ~Stranger() { dds_delete(participant_); }
    Stranger(const Stranger&) = delete;
    Stranger& operator=(const Stranger&) = delete;

    /// Identity by which brokers know it.
    const std::string& getId() const noexcept { return id_; }
    /// From now on it names another broker as the sender of its messages.
    void pretendToBe(std::string id) { id_ = std::move(id); }

    /// Identity of the one broker that there is besides `except`.
    std::string findBroker(const std::string& except = {}) {
        return findBrokerWhere([&](const auto& announcement) { return announcement.broker != except; });
    }
    /// Identity of the one broker in the process.
    std::string findBrokerOf(pid_t process) {
        return findBrokerWhere([&](const auto& announcement) {
            return announcement.pid == static_cast<std::uint32_t>(process);
        });
    }

    /// User data of a broker's announcements. \param other  that of another broker than this one
    std::string findUserData(const std::string& broker, bool other = false) {
        const dds_entity_t reader = readAnnouncements();
        std::string found;
        EXPECT_TRUE(eventually([&] {
            void* sample = nullptr;
            dds_sample_info_t info;
            while (found.empty() && dds_take(reader, &sample, &info, 1, 1) == 1) {
                if ((static_cast<KRVision_Announcement*>(sample)->broker != broker) == other) {
                    found = readUserData(reader, info.publication_handle);
                }
                dds_return_loan(reader, &sample, 1);
            }
            return !found.empty();
        }));
        return found;
    }

    /// Announces itself as a broker.
    void announce(std::uint32_t protocol, std::vector<std::uint8_t> modules) {
        char host[] = "elsewhere";
        KRVision_Announcement announcement{};
        announcement.broker = id_.data();
        announcement.name = name_.data();
        announcement.host = host;
        announcement.pid = 4711;
        announcement.protocol = protocol;
        announcement.modules._buffer = modules.data();
        announcement.modules._length = announcement.modules._maximum =
            static_cast<std::uint32_t>(modules.size());
        announce(announcement);
    }
    void announce(const KRVision_Announcement& announcement) {
        EXPECT_EQ(dds_write(getAnnouncer(), &announcement), DDS_RETCODE_OK);
    }
    /// Says that it leaves, as a broker does.
    void withdraw() {
        KRVision_Announcement self{};
        self.broker = id_.data();
        EXPECT_EQ(dds_dispose(getAnnouncer(), &self), DDS_RETCODE_OK);
    }

    /// Sends a request to the broker. \param kind  0 a call, 1 an inquiry
    void request(const std::string& broker, std::uint64_t number, std::string module, std::string method,
                 std::vector<std::uint8_t> arguments, std::uint32_t kind = 0) {
        if (requests_ == 0) {
            const dds_entity_t topic = dds_create_topic(participant_, &KRVision_Request_desc,
                                                        "KRVision/1/Request", nullptr, nullptr);
            requests_ = createWriter(topic, broker);
        }
        KRVision_Request request{};
        request.broker = id_.data();
        request.number = number;
        request.kind = kind;
        request.callee = module.data();
        request.method = method.data();
        request.arguments._buffer = arguments.data();
        request.arguments._length = request.arguments._maximum = static_cast<std::uint32_t>(arguments.size());
        EXPECT_EQ(dds_write(requests_, &request), DDS_RETCODE_OK);
    }

    dds_entity_t readReplies() {
        const dds_entity_t topic =
            dds_create_topic(participant_, &KRVision_Reply_desc, "KRVision/1/Reply", nullptr, nullptr);
        return dds_create_reader(participant_, topic, makeQos(id_.c_str()).get(), nullptr);
    }

    dds_entity_t readRequests() {
        const dds_entity_t topic =
            dds_create_topic(participant_, &KRVision_Request_desc, "KRVision/1/Request", nullptr, nullptr);
        return dds_create_reader(participant_, topic, makeQos(id_.c_str()).get(), nullptr);
    }

    dds_entity_t readAnnouncements() {
        const dds_entity_t topic =
            dds_create_topic(participant_, &KRVision_Announcement_desc, "KRVision/Broker", nullptr, nullptr);
        return dds_create_reader(participant_, topic, makeQos(nullptr).get(), nullptr);
    }

    /// Answers a request of the broker.
    void reply(const std::string& broker, std::uint64_t number, std::uint32_t status,
               std::vector<std::uint8_t> value) {
        const dds_entity_t topic =
            dds_create_topic(participant_, &KRVision_Reply_desc, "KRVision/1/Reply", nullptr, nullptr);
        KRVision_Reply reply{};
        reply.broker = id_.data();
        reply.number = number;
        reply.status = status;
        reply.value._buffer = value.data();
        reply.value._length = reply.value._maximum = static_cast<std::uint32_t>(value.size());
        EXPECT_EQ(dds_write(createWriter(topic, broker), &reply), DDS_RETCODE_OK);
    }

private:
    template <class Condition>
    std::string findBrokerWhere(Condition isWanted) {
        const dds_entity_t reader = readAnnouncements();
        std::string id;
        EXPECT_TRUE(eventually([&] {
            void* sample = nullptr;
            dds_sample_info_t info;
            while (id.empty() && dds_take(reader, &sample, &info, 1, 1) == 1) {
                const auto& announcement = *static_cast<const KRVision_Announcement*>(sample);
                if (info.valid_data && isWanted(announcement)) {
                    id = announcement.broker;
                }
                dds_return_loan(reader, &sample, 1);
            }
            return !id.empty();
        }));
        return id;
    }
    static std::string readUserData(dds_entity_t reader, dds_instance_handle_t writer) {
        const std::unique_ptr<dds_builtintopic_endpoint_t, void (*)(dds_builtintopic_endpoint_t*)> endpoint(
            dds_get_matched_publication_data(reader, writer), dds_builtintopic_free_endpoint);
        void* data = nullptr;
        std::size_t size = 0;
        if (!endpoint || !dds_qget_userdata(endpoint->qos, &data, &size)) {
            return {};
        }
        const std::unique_ptr<void, void (*)(void*)> owned(data, dds_free);
        return {static_cast<const char*>(data), size};
    }

    dds_entity_t getAnnouncer() {
        if (announcer_ == 0) {
            const dds_entity_t topic = dds_create_topic(participant_, &KRVision_Announcement_desc,
                                                        "KRVision/Broker", nullptr, nullptr);
            announcer_ = dds_create_writer(participant_, topic, makeQos(nullptr).get(), nullptr);
        }
        return announcer_;
    }
    /// One that the broker reads.
    dds_entity_t createWriter(dds_entity_t topic, const std::string& broker) {
        const dds_entity_t writer =
            dds_create_writer(participant_, topic, makeQos(broker.c_str()).get(), nullptr);
        EXPECT_TRUE(eventually([&] {
            dds_publication_matched_status_t status{};
            dds_get_publication_matched_status(writer, &status);
            return status.current_count == 1;
        }));
        return writer;
    }

    const dds_entity_t participant_;
    std::string name_;
    std::string id_;
    dds_entity_t announcer_ = 0;
    dds_entity_t requests_ = 0;
};

} // namespace KR::test
