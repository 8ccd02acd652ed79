// The tesslin tool run as users run it: its exit status, standard output and
// standard error (standard input is /dev/null).
#pragma once

#include <sys/wait.h>

#include <string>

#include "test_util.h"

namespace tesslin::test {

struct CliRun {
    int status = -1;
    std::string out, err;
    std::string text() const { return out + err; }
};

inline std::string quote(const std::string& s) { return "'" + s + "'"; }

inline std::string slurp(const std::string& path) {
    const Bytes b = read_file(path);
    return std::string(b.begin(), b.end());
}

inline CliRun run_cli(const std::string& args) {
    const Scratch out("cli.out"), err("cli.err");
    const int raw = std::system((quote(TESSLIN_CLI) + " " + args + " > " + quote(out) + " 2> " +
                                 quote(err) + " < /dev/null")
                                    .c_str());
    return {WIFEXITED(raw) ? WEXITSTATUS(raw) : -1, slurp(out), slurp(err)};
}

}  // namespace tesslin::test
