#include "tool/errortext.hpp"

namespace KR::tool {

namespace {

// Names of methods have no blanks and do not end in a colon.
bool isExplanation(const std::string& method) {
    return method.find_first_of(" :") != std::string::npos;
}

// An explanation with the description behind it, and one colon between the two.
std::string joinSentence(const KRError& error) {
    const std::string& explanation = error.getMethod();
    const std::size_t last = explanation.find_last_not_of(" :");
    return explanation.substr(0, last + 1) + ": " + error.getDescription();
}

} // namespace

std::string describe(const KRError& error) {
    return error.getModule() + (isExplanation(error.getMethod())
                                    ? ": " + joinSentence(error)
                                    : "." + error.getMethod() + ": " + error.getDescription());
}

std::string describeFailedCall(const std::string& module, const std::string& method, const KRError& error) {
    const std::string call = module + "." + method + ": ";
    if (isExplanation(error.getMethod())) {
        const std::string sentence = joinSentence(error);
        const std::string repetition = method + ": ";
        return call + (sentence.starts_with(repetition) ? sentence.substr(repetition.size()) : sentence);
    }
    const bool isOrigin = error.getModule() == module && error.getMethod() == method;
    return call + (isOrigin ? error.getDescription() : describe(error));
}

} // namespace KR::tool
