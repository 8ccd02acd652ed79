// Leak reports the sanitizer build must not count: fontconfig keeps a few
// bytes of its parsed configuration unreachable until FcFini, which a
// library may not call behind its application's back.
extern "C" const char* __lsan_default_suppressions() { return "leak:libfontconfig.so\n"; }
