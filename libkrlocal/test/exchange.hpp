#pragma once

#include "images.hpp"
#include "patience.hpp"
#include "testservice.hpp"

#include "krlocal/krlocalendpoint.hpp"

#include <krplatform/krerror.hpp>

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <future>
#include <mutex>
#include <sstream>
#include <string>
#include <vector>

namespace KR::test {

constexpr std::size_t kSmallImage = 614400;
constexpr std::size_t kLargeImage = 2457600;

/// What an Exchange has seen so far.
struct ExchangeReport {
    std::uint64_t images = 0;      ///< received
    std::uint64_t overwritten = 0; ///< images of these that did not stay as they were
    std::uint64_t ended = 0;       ///< processes that ended while images came from them
    std::size_t sources = 0;       ///< processes that images come from
    KRLocalStatistics statistics;  ///< of the endpoint

    std::string toText() const {
        std::ostringstream text;
        text << images << ' ' << overwritten << ' ' << ended << ' ' << sources << ' ' << statistics.memory
             << ' ' << statistics.lent << ' ' << statistics.shared << ' ' << statistics.streamed << ' '
             << statistics.connections << ' ' << statistics.refused << ' ' << statistics.disconnected;
        return text.str();
    }
    static ExchangeReport parse(const std::string& text) {
        ExchangeReport report;
        std::istringstream(text) >> report.images >> report.overwritten >> report.ended >> report.sources >>
            report.statistics.memory >> report.statistics.lent >> report.statistics.shared >>
            report.statistics.streamed >> report.statistics.connections >> report.statistics.refused >>
            report.statistics.disconnected;
        return report;
    }
};

/// Serves images to other processes and fetches images from them all the time. Others control it by requests: "from" and an
/// address, "rest" and "report". Thread-safe.
class Exchange {
public:
    static constexpr std::size_t kKept = 4; ///< images that it keeps from each process

    explicit Exchange(const std::string& id)
        : endpoint_(KRLocalOptions{id, "", std::size_t{64} << 20}, service_) {}
    ~Exchange() {
        resting_ = true;
        endpoint_.stop();
    }
    Exchange(const Exchange&) = delete;
    Exchange& operator=(const Exchange&) = delete;

    KRLocalEndpoint& getEndpoint() noexcept { return endpoint_; }

    /// Fetches images there from now on, until that process ends or rest().
    void fetchFrom(const KRLocalAddress& address) {
        const std::lock_guard lock(mutex_);
        std::erase_if(fetching_, [](std::future<void>& each) {
            return each.wait_for(std::chrono::seconds(0)) == std::future_status::ready;
        });
        ++sources_;
        fetching_.push_back(std::async(std::launch::async, [this, address] {
            fetch(address);
            --sources_;
        }));
    }
    /// Fetches no more images, and gives all back.
    void rest() {
        resting_ = true;
        const std::lock_guard lock(mutex_);
        fetching_.clear();
    }
    ExchangeReport report() const {
        return {images_, overwritten_, ended_, sources_, endpoint_.getStatistics()};
    }

private:
    void serve(KRLocalRequest& request) {
        std::istringstream words(request.message.body);
        std::string word;
        words >> word;
        if (word == "from") {
            std::string address;
            std::getline(words >> std::ws, address);
            fetchFrom(KRLocalAddress::parse(address).value());
            request.reply({});
        } else if (word == "rest") {
            rest();
            request.reply({});
        } else if (word == "report") {
            request.reply(makeMessage(0, report().toText()));
        } else {
            serveImages(request);
        }
    }
    void fetch(const KRLocalAddress& address) {
        try {
            const auto connection = endpoint_.connect(address, kPatience, {});
            std::deque<KRBinary> kept;
            for (int i = 0; connection && !resting_; ++i) {
                kept.push_back(fetchImage(*connection, i % 3 == 0 ? kLargeImage : kSmallImage));
                ++images_;
                overwritten_ += isImage(kept.back()) && isImage(kept.front()) ? 0 : 1;
                if (kept.size() > kKept) {
                    kept.pop_front();
                }
            }
            if (connection) {
                return;
            }
        } catch (const KRError&) { // it has been killed
        }
        ++ended_;
    }

    std::atomic<std::uint64_t> images_ = 0;
    std::atomic<std::uint64_t> overwritten_ = 0;
    std::atomic<std::uint64_t> ended_ = 0;
    std::atomic<std::size_t> sources_ = 0;
    std::atomic<bool> resting_ = false;
    TestService service_{[this](KRLocalRequest& request) { serve(request); }};
    KRLocalEndpoint endpoint_;
    std::mutex mutex_;
    std::vector<std::future<void>> fetching_; // guarded by mutex_
};

} // namespace KR::test
