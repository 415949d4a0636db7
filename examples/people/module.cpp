#include "peopleextractor.hpp"

#include <krplatform/krmoduleclass.hpp>

KR_REGISTER_MODULE(PeopleExtractor)
