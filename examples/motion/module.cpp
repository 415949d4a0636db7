#include "krmotionextractor.hpp"

#include <krplatform/krmoduleclass.hpp>

KR_REGISTER_MODULE(KRMotionExtractor)
