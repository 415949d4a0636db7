#pragma once

namespace KR {

/// The low 32 bits of a product, as image sizes are computed everywhere: an overflow wraps round.
template <class... Factors>
constexpr int wrappingProduct(Factors... factors) {
    return static_cast<int>((static_cast<unsigned>(factors) * ...));
}

} // namespace KR
