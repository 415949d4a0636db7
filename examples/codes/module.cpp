#include "codesextractor.hpp"

#include <krplatform/krmoduleclass.hpp>

KR_REGISTER_MODULE(CodesExtractor)
