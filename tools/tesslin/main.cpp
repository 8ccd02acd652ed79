// tesslin: command-line front end of the library. This file holds the table
// of commands and the dispatch; each command is tools/tesslin/cmd_<name>.cpp
// (despeckle: cmd_lone_dots.cpp, named for what it removes).
#include <cstdio>
#include <cstring>
#include <string>

#include "common.h"

namespace cli {

// The commands, one row each, in the order `tesslin --help` lists them:
// name, the arguments shown in that list, and the one-line summary. The file
// cmd_<name>.cpp defines `<name>_help` (the text of `tesslin <name> --help`)
// and `run_<name>` (the command, given the arguments after its name).
#define TESSLIN_COMMANDS(ROW)                                                                    \
    ROW(info, "FILE... [--page N] [--json]", "format, pages, size, depth and resolution")        \
    ROW(convert, "INPUT OUTPUT [options]", "decode pages and save them in another format")       \
    ROW(formats, "", "every format code and what the library does with it")                      \
    ROW(tags, "FILE [--page N]", "the TIFF tags of a page")                                      \
    ROW(threshold, "INPUT OUTPUT [--level N]", "pages to bilevel by a threshold (or auto)")       \
    ROW(dither, "INPUT OUTPUT [--method M]", "pages to bilevel by dithering")                      \
    ROW(reduce, "INPUT OUTPUT [options]", "pages to 16 or 256 colours")                          \
    ROW(gray, "INPUT OUTPUT", "pages to 8-bit grey")                                               \
    ROW(promote, "INPUT OUTPUT --bits B", "pages to 8, 24 or 32 bits")                            \
    ROW(rotate, "INPUT OUTPUT --angle DEG", "turn pages by an angle in degrees")                 \
    ROW(flip, "INPUT OUTPUT -x|-y", "mirror pages left-right or top-bottom")                     \
    ROW(invert, "INPUT OUTPUT", "complement every pixel value")                                  \
    ROW(resize, "INPUT OUTPUT --width W --height H", "scale pages (nearest, interp, area, grey)") \
    ROW(scan, "OUT [options]", "pages from the scanner into a file or numbered files")           \
    ROW(gamma, "INPUT OUTPUT --value G", "pages through a gamma curve")                             \
    ROW(contrast, "INPUT OUTPUT [options]", "contrast and brightness of pages")                     \
    ROW(window, "INPUT OUTPUT [options]", "window/level of grey and 16-bit pages to 8-bit grey")    \
    ROW(equalize, "INPUT OUTPUT", "histogram equalisation of grey pages")                           \
    ROW(sharpen, "INPUT OUTPUT [--amount N]", "sharpen pages")                                      \
    ROW(smooth, "INPUT OUTPUT [--amount N]", "smooth pages")                                        \
    ROW(deskew, "INPUT OUTPUT [--range LO,HI]", "measure and remove the skew of bilevel pages") \
    ROW(despeckle, "INPUT OUTPUT [--level N]", "remove specks from bilevel pages")              \
    ROW(autocrop, "INPUT OUTPUT [--margin N]", "crop the white borders of bilevel pages")       \
    ROW(orient, "FILE [--page N]", "whether text lines run across (0) or down (90)")            \
    ROW(version, "", "library and interface versions")

#define TESSLIN_DECLARE(name, args, summary) \
    extern const char* const name##_help;    \
    int run_##name(int argc, char** argv);
TESSLIN_COMMANDS(TESSLIN_DECLARE)
#undef TESSLIN_DECLARE

namespace {

#define TESSLIN_ROW(name, args, summary) {#name, args, summary, name##_help, run_##name},
const Command kCommands[] = {TESSLIN_COMMANDS(TESSLIN_ROW)};
#undef TESSLIN_ROW

const Command* find_command(const std::string& name) {
    for (const Command& c : kCommands)
        if (name == c.name) return &c;
    return nullptr;
}

// "usage: tesslin <command> ..." with one line per command.
std::string main_help() {
    std::string text =
        "usage: tesslin <command> [arguments]\n"
        "\n"
        "commands:\n";
    for (const Command& c : kCommands) {
        const std::string left = *c.args ? std::string(c.name) + " " + c.args : c.name;
        char line[256];
        std::snprintf(line, sizeof line, "  %-34s %s\n", left.c_str(), c.summary);
        text += line;
    }
    return text + "\n'tesslin COMMAND --help' describes a command. Pages count from 1.\n";
}

bool wants_help(int argc, char** argv) {
    for (int i = 0; i < argc; ++i)
        if (!std::strcmp(argv[i], "--help") || !std::strcmp(argv[i], "-h")) return true;
    return false;
}

}  // namespace

std::span<const Command> commands() { return kCommands; }

}  // namespace cli

int main(int argc, char** argv) {
    using namespace cli;
    if (argc < 2) {
        std::fputs(main_help().c_str(), stderr);
        return kUsageError;
    }
    const std::string name = argv[1];
    if (name == "--write-man" && argc == 3) return write_man_pages(argv[2]);
    if (name == "--help" || name == "-h" || name == "help")
        return std::fputs(main_help().c_str(), stdout), 0;
    const Command* command = find_command(name == "--version" ? "version" : name);
    if (!command) {
        std::fprintf(stderr, "tesslin: unknown command '%s'\n\n%s", name.c_str(),
                     main_help().c_str());
        return kUsageError;
    }
    // Any --help or -h among a command's arguments asks for its help.
    if (wants_help(argc - 2, argv + 2)) return std::fputs(command->help, stdout), 0;
    return command->run(argc - 2, argv + 2);
}
