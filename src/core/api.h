// Exported functions never let an exception cross the C interface: memory
// exhaustion inside library code becomes IMG_ERR_MEMORY.
#pragma once

#include <cstdint>
#include <new>

#include "tesslin/tesslin.h"

namespace tesslin {

template <typename F>
auto api_call(F&& body) noexcept -> decltype(body()) {
    try {
        return body();
    } catch (...) {
        return static_cast<decltype(body())>(IMG_ERR_MEMORY);
    }
}

}  // namespace tesslin
