#include "krmessagewriter.hpp"

#include "krserdata.hpp"

#include <exception>

namespace KR {

namespace {

constexpr std::chrono::milliseconds kAttempt{100}; // how long a thread may stay in the engine

} // namespace

KRMessageWriter::KRMessageWriter(dds_entity_t participant, dds_entity_t topic, std::string partition,
                                 std::function<void()> onMatchedFunction)
    : participant_(participant), topic_(topic), partition_(std::move(partition)),
      onMatched_(std::move(onMatchedFunction)) {}

KRDDSEntity KRMessageWriter::createWriter() {
    const std::unique_ptr<dds_qos_t, void (*)(dds_qos_t*)> qos(dds_create_qos(), dds_delete_qos);
    dds_qset_reliability(qos.get(), DDS_RELIABILITY_RELIABLE, DDS_MSECS(kAttempt.count()));
    dds_qset_history(qos.get(), DDS_HISTORY_KEEP_ALL, 0);
    dds_qset_partition1(qos.get(), partition_.c_str());
    // A listener, because querying the status waits for the writer's lock.
    const std::unique_ptr<dds_listener_t, void (*)(dds_listener_t*)> listener(dds_create_listener(this),
                                                                              dds_delete_listener);
    dds_lset_publication_matched(listener.get(), onMatched);
    return KRDDSEntity(
        checkDDS(dds_create_writer(participant_, topic_, qos.get(), listener.get()), "writer"));
}

void KRMessageWriter::onMatched(dds_entity_t, dds_publication_matched_status_t status, void* writer) {
    auto& self = *static_cast<KRMessageWriter*>(writer);
    if (status.current_count == 0 || self.matched_) {
        return;
    }
    {
        const KRLock lock(self.mutex_); // never held inside the engine
        self.matched_ = true;
        self.changed_.notifyAll();
    }
    self.onMatched_();
}

void KRMessageWriter::open() {
    KRLock lock(mutex_);
    changed_.wait(lock, [this] {
        mutex_.assertHeld();
        return !busy_;
    });
    if (opened_ || closed_) {
        return;
    }
    busy_ = true;
    lock.unlock();
    std::exception_ptr failure;
    try {
        writer_ = createWriter();
    } catch (...) {
        failure = std::current_exception();
    }
    lock.lock();
    busy_ = false;
    opened_ = !failure;
    changed_.notifyAll();
    if (failure) {
        std::rethrow_exception(failure);
    }
}

KRMessageWriter::Outcome KRMessageWriter::write(KRComposedBytes message, std::chrono::milliseconds patience) {
    const auto shared = std::make_shared<const KRComposedBytes>(std::move(message));
    const auto deadline = std::chrono::steady_clock::now() + patience;
    if (!matched_) {
        open();
    }
    KRLock lock(mutex_);
    for (;;) {
        // Messages written before the other reads would be lost.
        const bool turn = changed_.waitUntil(lock, deadline, [this] {
            mutex_.assertHeld();
            return (!busy_ && matched_) || closed_;
        });
        if (closed_) {
            return Outcome::Closed;
        }
        if (!turn) {
            return Outcome::TimedOut;
        }
        busy_ = true;
        lock.unlock();
        const dds_return_t written = writeMessage(writer_.get(), shared);
        lock.lock();
        busy_ = false;
        changed_.notifyAll();
        if (written != DDS_RETCODE_TIMEOUT) {
            return written == DDS_RETCODE_OK ? Outcome::Sent : Outcome::Refused;
        }
        if (std::chrono::steady_clock::now() >= deadline) {
            return Outcome::TimedOut;
        }
    }
}

void KRMessageWriter::interrupt() {
    const KRLock lock(mutex_);
    closed_ = true;
    changed_.notifyAll();
}

void KRMessageWriter::close() {
    KRLock lock(mutex_);
    closed_ = true;
    changed_.notifyAll();
    changed_.wait(lock, [this] {
        mutex_.assertHeld();
        return !busy_;
    });
    busy_ = true; // of several closing threads, one deletes
    lock.unlock();
    writer_.reset();
    lock.lock();
    busy_ = false;
    changed_.notifyAll();
}

} // namespace KR
