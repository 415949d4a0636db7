// One of many processes on a domain, for benchmarks/many-processes: hosts a module, and prints a line once it can
// call those of all the others. With a fourth argument it first creates that many more modules, and prints the time
// taken.

#include <krdds/krdds.hpp>
#include <krplatform/krbroker.hpp>
#include <krplatform/krmodulehandle.hpp>
#include <krplatform/krproxy.hpp>

#include <chrono>
#include <cstdlib>
#include <iostream>
#include <string>
#include <vector>

namespace {

/// A module with one method.
class Member : public KR::KRModule {
public:
    Member(boost::shared_ptr<KR::KRBroker> broker, const std::string& name)
        : KRModule(std::move(broker), name) {
        functionName("echo", "Member", "Returns its argument.");
        addParam("value", "Any value.");
        advertiseMethod(getCurrentMethodDescription(), this, &Member::echo);
    }
    ~Member() override { shutDown(); }

    int echo(int value) { return value; }
};

std::string nameOf(int number) {
    return "Member" + std::to_string(number);
}

int run(const std::string& url, int number, int count, int more) {
    KR::registerDDS();
    const auto broker = KR::KRBroker::create(url);
    const auto begin = std::chrono::steady_clock::now();
    std::vector<KR::KRModuleHandle<Member>> others;
    for (int i = 0; i < more; ++i) {
        others.push_back(KR::createModule<Member>(broker, nameOf(number) + "." + std::to_string(i)));
    }
    if (more > 0) {
        const std::chrono::duration<double> time = std::chrono::steady_clock::now() - begin;
        std::cerr << more << " modules in " << time.count() << " s" << std::endl;
    }
    const auto member = KR::createModule<Member>(broker, nameOf(number));
    for (int other = 0; other < count; ++other) {
        broker->getSession().waitForService(nameOf(other));
    }
    std::cout << "known" << std::endl;
    std::string line;
    while (std::getline(std::cin, line)) { // each line requests a call to the next one
        const std::string next = nameOf((number + 1) % count);
        std::cout << (broker->getProxy(next)->call<int>("echo", number) == number ? "called" : "wrong")
                  << std::endl;
    }
    return EXIT_SUCCESS;
}

} // namespace

int main(int count, char** arguments) {
    if (count != 4 && count != 5) {
        std::cerr << "Usage: many_processes URL NUMBER COUNT [MODULES]\n";
        return 2;
    }
    try {
        return run(arguments[1], std::stoi(arguments[2]), std::stoi(arguments[3]),
                   count == 5 ? std::stoi(arguments[4]) : 0);
    } catch (const std::exception& error) {
        std::cout << "failed: " << error.what() << std::endl;
        return EXIT_FAILURE;
    }
}
