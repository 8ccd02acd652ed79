// Manual pages generated from the command table: tesslin.1 lists the
// commands with their summaries, tesslin-NAME.1 holds the text of
// `tesslin NAME --help`. The build runs `tesslin --write-man DIR`, so the
// pages and the help texts cannot drift apart.
#include <cstdio>
#include <string>

#include "common.h"

namespace cli {

namespace {

// Text for roff: backslashes doubled, a leading '.' or '\'' kept literal.
std::string roff(const std::string& text) {
    std::string out;
    bool line_start = true;
    for (char c : text) {
        if (line_start && (c == '.' || c == '\'')) out += "\\&";
        if (c == '\\') out += "\\e";
        else if (c == '-') out += "\\-";
        else out += c;
        line_start = c == '\n';
    }
    return out;
}

std::string upper(std::string s) {
    for (char& c : s)
        if (c >= 'a' && c <= 'z') c = static_cast<char>(c - 'a' + 'A');
    return s;
}

bool write_file(const std::string& path, const std::string& text) {
    std::FILE* f = std::fopen(path.c_str(), "wb");
    if (!f) return false;
    const bool ok = std::fwrite(text.data(), 1, text.size(), f) == text.size();
    return std::fclose(f) == 0 && ok;
}

std::string header(const std::string& page, const std::string& what) {
    return ".TH " + upper(page) + " 1 \"\" \"tesslin " TESSLIN_VERSION "\" \"Tesslin\"\n"
           ".SH NAME\n" + roff(page) + " \\- " + roff(what) + "\n";
}

// The help text splits into its usage lines (SYNOPSIS) and the rest
// (DESCRIPTION), kept as laid out.
std::string command_page(const Command& c) {
    std::string help = c.help, synopsis, description;
    const size_t blank = help.find("\n\n");
    synopsis = blank == std::string::npos ? help : help.substr(0, blank + 1);
    description = blank == std::string::npos ? "" : help.substr(blank + 2);
    // "usage: " goes, with the indentation of the lines that continue it.
    if (synopsis.rfind("usage: ", 0) == 0) {
        std::string kept;
        size_t at = 7;
        while (at < synopsis.size()) {
            size_t end = synopsis.find('\n', at);
            end = end == std::string::npos ? synopsis.size() : end + 1;
            kept += synopsis.substr(at, end - at);
            at = synopsis.compare(end, 7, "       ") == 0 ? end + 7 : end;
        }
        synopsis = kept;
    }
    std::string text = header(std::string("tesslin-") + c.name, c.summary);
    text += ".SH SYNOPSIS\n.nf\n" + roff(synopsis) + ".fi\n";
    if (!description.empty()) text += ".SH DESCRIPTION\n.nf\n" + roff(description) + ".fi\n";
    text += ".SH SEE ALSO\n.BR tesslin (1)\n";
    return text;
}

std::string main_page() {
    std::string text = header("tesslin", "decode, process and save raster and document images");
    text += ".SH SYNOPSIS\n.B tesslin\n.I command\n[arguments]\n.SH DESCRIPTION\n"
            "Each command has a page of its own, tesslin\\-COMMAND(1), with the text of\n"
            ".BR \"tesslin COMMAND \\-\\-help\" .\n"
            "Pages count from 1.\n.SH COMMANDS\n";
    for (const Command& c : commands()) {
        text += ".TP\n.B " + roff(c.name);
        if (*c.args) text += " \"\" \"" + roff(c.args) + "\"";
        text += "\n" + roff(c.summary) + "\n";
    }
    text += ".SH EXIT STATUS\n0 success, 1 an operation failed, 2 a usage error.\n"
            ".SH SEE ALSO\n";
    bool first = true;
    for (const Command& c : commands()) {
        text += std::string(first ? "" : ",\n") + ".BR tesslin\\-" + roff(c.name) + " (1)";
        first = false;
    }
    return text + "\n";
}

}  // namespace

int write_man_pages(const std::string& dir) {
    if (!write_file(dir + "/tesslin.1", main_page())) {
        std::fprintf(stderr, "tesslin: cannot write %s/tesslin.1\n", dir.c_str());
        return 1;
    }
    for (const Command& c : commands()) {
        const std::string path = dir + "/tesslin-" + c.name + ".1";
        if (!write_file(path, command_page(c))) {
            std::fprintf(stderr, "tesslin: cannot write %s\n", path.c_str());
            return 1;
        }
    }
    return 0;
}

}  // namespace cli
