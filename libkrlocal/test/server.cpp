// Another process for the tests: serves images, fetches them again and again, or both.

#include "krlocal/krhostdirectory.hpp"
#include "krlocal/krlocalendpoint.hpp"

#include "exchange.hpp"
#include "images.hpp"
#include "patience.hpp"
#include "testservice.hpp"

#include <krplatform/krerror.hpp>
#include <krplatform/krlog.hpp>

#include <grp.h>
#include <unistd.h>

#include <atomic>
#include <deque>
#include <iostream>
#include <string>
#include <thread>
#include <vector>

namespace {

using KR::test::kPatience;

int serve(const std::string& group) {
    KR::test::TestService service(KR::test::serveImages);
    KR::KRLocalEndpoint endpoint(KR::KRLocalOptions{"another process", group}, service);
    const KR::KRLocalAddress& address = endpoint.getAddress();
    std::cout << address.machine << " " << address.socket << " " << address.secret << std::endl;
    for (std::string line; std::getline(std::cin, line);) {
    }
    endpoint.stop();
    return 0;
}

int fetch(const KR::KRLocalAddress& address, const std::string& group) {
    KR::test::TestService idle;
    KR::KRLocalEndpoint endpoint(KR::KRLocalOptions{"another process", group}, idle);
    const auto connection = endpoint.connect(address, kPatience, {});
    std::atomic<bool> ending = false;
    std::atomic<bool> good = true;
    std::thread fetching([&] {
        std::deque<KR::KRBinary> kept;
        for (int i = 0; !ending; ++i) {
            try {
                kept.push_back(KR::test::fetchImage(*connection, i % 3 == 0 ? 2457600 : 614400));
                good = good && KR::test::isImage(kept.back()) && KR::test::isImage(kept.front());
            } catch (const KR::KRError& error) {
                std::cerr << error.what() << std::endl;
                good = false;
                return;
            }
            if (kept.size() == 5) {
                kept.pop_front();
            }
            if (i == 10) {
                std::cout << "ready" << std::endl;
            }
        }
    });
    for (std::string line; std::getline(std::cin, line);) {
    }
    ending = true;
    fetching.join();
    endpoint.stop();
    return good ? 0 : 1;
}

int exchangeImages(const std::string& id, const std::vector<std::string>& sources) {
    KR::test::Exchange exchange(id);
    for (const std::string& source : sources) {
        exchange.fetchFrom(KR::KRLocalAddress::parse(source).value());
    }
    std::cout << exchange.getEndpoint().getAddress().toText() << std::endl;
    for (std::string line; std::getline(std::cin, line);) {
    }
    return exchange.report().overwritten == 0 ? 0 : 1;
}

/// Publishes a text unless it is empty, and after it what the broker "here" publishes and which others have ended.
int meet(const std::string& name, const std::string& broker, const std::string& text) {
    using News = KR::KRHostDirectory::News;
    KR::KRHostDirectory directory;
    directory.join({name, broker, !text.empty()});
    directory.publish(text);
    std::atomic<bool> ending = false;
    std::thread reading([&] {
        for (std::string line; std::getline(std::cin, line);) {
        }
        ending = true;
        directory.interrupt();
    });
    bool isReady = false;
    std::string ended;
    std::string here;
    while (!ending) {
        directory.wait(std::chrono::milliseconds(10));
        for (const News& news : directory.takeNews()) {
            if (news.kind == News::Kind::Ended) {
                ended += ", " + news.broker + " ended";
            } else if (news.broker == "here" && news.kind == News::Kind::Published) {
                here = ", here:" + news.text;
            } else {
                continue;
            }
            directory.publish(text + ended + here);
        }
        directory.settle();
        directory.beat(std::chrono::seconds(10));
        if (!isReady && directory.hasMetAll()) {
            isReady = true;
            std::cout << "ready" << std::endl;
        }
    }
    reading.join();
    directory.leave();
    return 0;
}

} // namespace

// [as UID GID] [in GROUP] serve | fetch MACHINE SOCKET SECRET | exchange ID [ADDRESS]... | meet DIRECTORY BROKER TEXT
int main(int count, char** arguments) {
    KR::setLogLevel(KR::KRLogLevel::Error);
    std::vector<std::string> words(arguments + 1, arguments + count);
    const auto drop = [&](int number) { words.erase(words.begin(), words.begin() + number); };
    try {
        if (words.size() > 3 && words[0] == "as") {
            const auto gid = static_cast<gid_t>(std::stoul(words[2]));
            if (setgroups(1, &gid) != 0 || setgid(gid) != 0 ||
                setuid(static_cast<uid_t>(std::stoul(words[1]))) != 0) {
                return 3;
            }
            drop(3);
        }
        std::string group;
        if (words.size() > 2 && words[0] == "in") {
            group = words[1];
            drop(2);
        }
        if (words.size() == 1 && words[0] == "serve") {
            return serve(group);
        }
        if (words.size() >= 2 && words[0] == "exchange") {
            return exchangeImages(words[1], {words.begin() + 2, words.end()});
        }
        if (words.size() == 4 && words[0] == "meet") {
            return meet(words[1], words[2], words[3]);
        }
        if (words.size() == 4 && words[0] == "fetch") {
            return fetch({words[1], words[2], words[3], 0, 0}, group);
        }
    } catch (const KR::KRError& error) {
        std::cout << error.getDescription() << std::endl;
        return 1;
    }
    return 2;
}
