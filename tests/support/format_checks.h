// Checks the format tests share: a table of damaged files and the status
// each must give.
#pragma once

#include <initializer_list>
#include <vector>

#include "test_util.h"

namespace tesslin::test {

// A file and the status its decode must give; rows >= 0 also counts the
// rows delivered before the status. With `public_path`, the public decode
// from memory must fail exactly when the status is negative (and its handle
// is freed when it does not).
struct StatusCase {
    const char* what;
    Bytes file;
    int32_t status;
    int rows = -1;
};
template <typename DecodeFn>
void expect_statuses(DecodeFn decoder, std::initializer_list<StatusCase> cases, bool public_path = false) {
    for (const StatusCase& c : cases) {
        const Decoded d = decode_with(decoder, c.file);
        EXPECT_EQ(d.status, c.status) << c.what;
        if (public_path) {
            EXPECT_EQ(Handle(decode_mem(c.file)) < 0, c.status < 0) << c.what;
        }
        if (c.rows < 0) continue;
        int rows = 0;
        for (const Bytes& r : d.rows) rows += !r.empty();
        EXPECT_EQ(rows, c.rows) << c.what;
    }
}

}  // namespace tesslin::test
