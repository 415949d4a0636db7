#pragma once

namespace KR {

/// The low 32 bits of a product: image sizes wrap on overflow everywhere.
template <class... Factors>
constexpr int wrappingProduct(Factors... factors) {
    return static_cast<int>((static_cast<unsigned>(factors) * ...));
}

} // namespace KR
