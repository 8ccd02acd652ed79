// What the commands of the tesslin tool share: the command table's row type,
// messages, argument reading, number parsing, format lookup, the progress
// bar and the page pipeline that decodes, transforms and saves pages.
// Pages count from 1 on the command line; the library counts them from 0.
#pragma once

#include <cstdint>
#include <functional>
#include <initializer_list>
#include <span>
#include <string>
#include <vector>

#include "tesslin/tesslin.h"

namespace cli {

constexpr int kUsageError = 2;

// ---- The command table (main.cpp) ------------------------------------------

// One row of the table. The texts are data so that the listing of
// `tesslin --help`, each command's --help and generated manual pages all come
// from the same place.
struct Command {
    const char* name;     // "convert"
    const char* args;     // "INPUT OUTPUT [options]", as `tesslin --help` lists it
    const char* summary;  // one line for that listing
    const char* help;     // the whole text of `tesslin NAME --help`
    int (*run)(int argc, char** argv);  // the arguments after the command's name
};

// Every command, in the order `tesslin --help` lists them.
std::span<const Command> commands();

// Writes the manual pages (tesslin.1 and tesslin-NAME.1 for every command)
// into an existing directory; 0, or 1 after a message. `tesslin --write-man
// DIR` runs it for the build.
int write_man_pages(const std::string& dir);

// ---- Messages --------------------------------------------------------------

// "page does not exist (IMG_ERR_NO_PAGE, -11)"
std::string status_text(int32_t status);

// What the operating system says about a file that could not be opened
// for reading ("No such file or directory", "Is a directory", "Permission
// denied") or created for writing; "" when it sees nothing wrong.
std::string input_reason(const std::string& path);
std::string output_reason(const std::string& path);

// Whether a multi-page file (TIFF, DCX) ends before its last page: a page
// it declares lies past its end. The pages before it are still readable.
bool ends_early(const std::string& path);

// Prints "tesslin: FILE: WHAT: STATUS-TEXT" on stderr and returns 1; for
// IMG_ERR_OPEN and IMG_ERR_CREATE the operating system's reason follows.
int fail(const std::string& file, const std::string& what, int32_t status);

// Prints "tesslin: TEXT" and the pointer to COMMAND's help on stderr and
// returns kUsageError.
int usage_error(const std::string& text, const char* command);

// A string as a JSON string literal, control bytes escaped.
std::string json_string(const std::string& s);

// ---- Numbers ---------------------------------------------------------------

// A whole decimal number in int32_t range and nothing after it ("abc", "12x"
// and "" fail). Ranges (no negatives ...) are Args::number's to check.
bool parse_int(const char* text, int32_t* out);

// ---- Arguments -------------------------------------------------------------

// Reads a command's arguments in order. A check that fails prints its usage
// error; the command then returns kUsageError.
//
//   Args a("rotate", argc, argv);
//   while (a.next()) {
//       if (a.is("--angle")) {
//           if (!a.number(&angle, -36000, 36000, "--angle needs ...")) return kUsageError;
//       } else if (!a.name(&names)) {
//           return kUsageError;
//       }
//   }
class Args {
public:
    Args(const char* command, int argc, char** argv) : command_(command), argc_(argc), argv_(argv) {}

    // Moves to the next argument; false after the last.
    bool next();
    const std::string& arg() const { return arg_; }
    bool is(const char* option) const { return arg_ == option; }

    // The value after the current option: any text, or a whole number from
    // lo to hi. Missing or out of range: usage error `need`.
    bool text(std::string* out, const char* need);
    bool number(int32_t* out, int32_t lo, int32_t hi, const char* need);

    // Whether the current argument looks like an option: it starts with '-'
    // and is more than a lone "-".
    bool is_option() const { return arg_.size() > 1 && arg_[0] == '-'; }
    // Usage error "unknown option ..."; returns kUsageError.
    int unknown() const { return usage("unknown option " + arg_); }

    // An argument no option took: kept as a name, or "unknown option" when it
    // looks like an option.
    bool name(std::vector<std::string>* names) const;

    // Prints the usage error of this command; returns kUsageError.
    int usage(const std::string& text) const { return usage_error(text, command_); }
    const char* command() const { return command_; }

private:
    const char* command_;
    int argc_;
    char** argv_;
    int at_ = -1;
    std::string arg_;
};

// ---- Progress --------------------------------------------------------------

// While alive, and only when stderr is a terminal, draws a progress bar on
// stderr for images of 1,000 rows or more, driven by the library's
// status-bar callback; it wipes the bar when it goes.
class ProgressScope {
public:
    explicit ProgressScope(std::string label);
    ~ProgressScope();
    ProgressScope(const ProgressScope&) = delete;
    ProgressScope& operator=(const ProgressScope&) = delete;

    static int32_t draw(intptr_t user, int32_t total, int32_t row, uint32_t);

private:
    std::string label_;
    int shown_ = -1;
    bool drawn_ = false;
    bool enabled_ = false;
};

// ---- Formats ---------------------------------------------------------------

// The highest format code IMGLOW_get_format_info knows.
constexpr int32_t kLastFormatCode = 77;

bool format_info(int32_t code, IMG_FORMAT_INFO* info);
std::string format_name(int32_t code);  // "unknown" for codes naming no format

// A code from "--format": a number, or a name as `tesslin formats` lists
// them ("tif" and "jpg" too); -1 when nothing matches.
int32_t code_from_option(const std::string& text);

// The extension of a file name, lower case, without the dot; "" for none.
std::string extension_of(const std::string& path);

// The code an output name asks for: the first format whose usual extension it
// carries, preferring one the library writes; .tif/.tiff gives Group 4 for
// bilevel pages (bits 1) and LZW for the rest. -1 when nothing matches.
int32_t code_from_extension(const std::string& path, int32_t bits);

// ---- Pages and files -------------------------------------------------------

// The header of one page (0-based) of a file by a header-only decode, with a
// tiled page's whole size. 0 or a negative status.
int32_t page_header(const std::string& file, int32_t page, IMG_BITMAPINFOHEADER* out);

// A name that does not exist yet in OUTPUT's directory, for writing before a
// rename ("" when none can be made). It must not exist: saving a multi-page
// format into an existing file appends.
std::string temporary_beside(const std::string& output);

// OUTPUT with "-N" before the extension, for page N of a single-page format.
std::string numbered(const std::string& output, int32_t n);

// What an option reader did with the current argument: not its option, taken,
// or taken with a bad value (usage error printed).
enum class Taken { kNo, kYes, kBad };

// The current argument when it is option `name`, with a whole number from
// lo to hi after it (else usage error `need`, kBad).
Taken number_option(Args& a, const char* name, int32_t* value, int32_t lo, int32_t hi, const char* need);
// The same for a number that must be one of `allowed`.
Taken choice_option(Args& a, const char* name, int32_t* value, std::initializer_list<int32_t> allowed,
                    const char* need);

// --page N / --all-pages.
struct PageChoice {
    int32_t page = 1;  // counting from 1
    bool all = false;
    bool page_given = false;

    Taken accept(Args& a);
    // Usage error when both were given.
    bool check(const Args& a) const;
};

// ---- The page pipeline -----------------------------------------------------

// Works on the handle of one decoded page (in place); returns 0 or more for
// success, else a negative status.
using PageTransform = std::function<int32_t(int32_t handle)>;

// What run_pages does: the input, the pages, and how the output is saved.
struct PageJob {
    PageJob() = default;
    // A page command: its name and the verbs of its transform.
    PageJob(const char* command_name, const char* action_verb, const char* doing_verb)
        : command(command_name), action(action_verb), doing(doing_verb) {}

    const char* command = "";  // for usage errors: "run 'tesslin COMMAND --help'"
    std::string input, output;
    PageChoice pages;
    std::string format;  // --format; empty: from the output's extension
    int32_t quality = -1;  // JPEG quality set before saving; -1: leave it
    bool overwrite = false;  // --overwrite: an existing output may be replaced

    // The transform's verb, for "cannot rotate page 3: ..." and the progress
    // label "rotating page 3 of 5".
    const char* action = "process";
    const char* doing = "processing";

    // The line saying what was written (stdout), unless --quiet.
    bool summary = true;
    bool quiet = false;
    // Progress labels with the page count ("decoding page 2 of 3"); convert
    // keeps its own labels ("decoding page 2", "saving page 2").
    bool page_totals = true;

    // Input that is not a file of pages: one page decoded by this call, of
    // `raw_bits` bits per pixel (convert's raw fax data).
    std::function<int32_t()> raw_decode;
    int32_t raw_bits = 1;

    // Takes the current argument when it is one of the options every page
    // command shares: --page, --all-pages, --format, --quality and (with a
    // summary) --quiet, and --overwrite.
    Taken accept(Args& a);
    // After the arguments: exactly two names (input, output) and a consistent
    // page choice; usage error otherwise.
    bool take_names(const Args& a, const std::vector<std::string>& names);
    // The whole command line of a page command: the shared options through
    // accept, the command's own through `own` (when given), then the two
    // names. False after a usage error (already printed).
    bool parse(int argc, char** argv, const std::function<Taken(Args&)>& own = nullptr);
};

// Decodes each selected page of job.input, applies `transform` (when given)
// and saves the result into job.output: every page into the one file when
// the output format holds several pages, else page N of several into
// OUTPUT-N.ext. The format is job.format or follows the output's extension
// (TIFF's compression from the first output page's depth). An output that
// exists already is refused (exit 1) unless job.overwrite. Everything is
// written to temporaries beside the output and renamed once complete, so a
// failure leaves no output and an existing output untouched. Progress goes
// to a terminal; the summary line to stdout. Returns the exit status: 0, 1
// for a failed operation (message printed), kUsageError for a format that
// cannot be told.
int run_pages(const PageJob& job, const PageTransform& transform = nullptr);

}  // namespace cli
