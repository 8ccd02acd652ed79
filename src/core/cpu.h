// Processor features for the few codec loops with vector forms. Each answer
// is read once; callers choose their path at run time so the library runs
// on any x86-64 processor.
#pragma once

namespace tesslin::cpu {

#if defined(__x86_64__) && defined(__GNUC__)
inline bool has_ssse3() {
    static const bool yes = __builtin_cpu_supports("ssse3");
    return yes;
}
inline bool has_sse41() {
    static const bool yes = __builtin_cpu_supports("sse4.1");
    return yes;
}
inline bool has_avx2() {
    static const bool yes = __builtin_cpu_supports("avx2");
    return yes;
}
#else
inline bool has_ssse3() { return false; }
inline bool has_sse41() { return false; }
inline bool has_avx2() { return false; }
#endif

}  // namespace tesslin::cpu
