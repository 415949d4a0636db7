#pragma once

#include <string>
#include <vector>

namespace KR::tool {

/// \name Completions of a verb's arguments by what is running
/// \param words   the arguments of the verb before the one to complete
/// \param broker  address of the broker
/// \return candidates for the next one; none if no broker answers
///@{
std::vector<std::string> completeModule(const std::vector<std::string>& words, const std::string& broker);
std::vector<std::string> completeModuleAndMethod(const std::vector<std::string>& words,
                                                 const std::string& broker);
/// The third word is a value of the parameter, where there are few.
std::vector<std::string> completeModuleAndParameter(const std::vector<std::string>& words,
                                                    const std::string& broker);
std::vector<std::string> completeMemoryKey(const std::vector<std::string>& words, const std::string& broker);
std::vector<std::string> completeEvent(const std::vector<std::string>& words, const std::string& broker);
///@}

} // namespace KR::tool
