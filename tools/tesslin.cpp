// tesslin: command-line front end of the library. Pages count from 1 here;
// the library counts them from 0.
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "tesslin/tesslin.h"

namespace {

constexpr int kUsageError = 2;
constexpr int32_t kUnknownFormat = -1000;

// ---- Messages ---------------------------------------------------------

std::string status_text(int32_t status) {
    return std::string(IMG_status_message(status)) + " (" + IMG_status_name(status) + ", " +
           std::to_string(status) + ")";
}

// "tesslin: scan.tif: cannot decode page 3: page does not exist (IMG_ERR_NO_PAGE, -11)"
int fail(const std::string& file, const std::string& what, int32_t status) {
    std::fprintf(stderr, "tesslin: %s: %s: %s\n", file.c_str(), what.c_str(),
                 status_text(status).c_str());
    return 1;
}

int usage_error(const std::string& text, const char* command) {
    std::fprintf(stderr, "tesslin: %s\nrun 'tesslin %s --help' for usage\n", text.c_str(),
                 command ? command : "");
    return kUsageError;
}

const char* const kMainHelp =
    "usage: tesslin <command> [arguments]\n"
    "\n"
    "commands:\n"
    "  info FILE... [--page N] [--json]   format, pages, size, depth and resolution\n"
    "  convert INPUT OUTPUT [options]     decode pages and save them in another format\n"
    "  formats                            every format code and what the library does with it\n"
    "  tags FILE [--page N]               the TIFF tags of a page\n"
    "  version                            library and interface versions\n"
    "\n"
    "'tesslin COMMAND --help' describes a command. Pages count from 1.\n";

const char* const kInfoHelp =
    "usage: tesslin info FILE... [--page N] [--json]\n"
    "\n"
    "Prints the format code and name, the page count and, for page N (default 1),\n"
    "width, height, bits per pixel and resolution of every FILE.\n"
    "  --page N   the page to describe, counting from 1\n"
    "  --json     one JSON object per file and line, with the keys file, format_code,\n"
    "             format, pages, page, width, height, bits, xdpi, ydpi\n";

const char* const kConvertHelp =
    "usage: tesslin convert INPUT OUTPUT [--page N | --all-pages] [--format F] [--quality Q]\n"
    "       tesslin convert --raw-fax MODE --width W [--height H] [--fill-order 1|2]\n"
    "                       INPUT OUTPUT [--format F]\n"
    "\n"
    "Decodes a page of INPUT (page 1 by default) and saves it as OUTPUT.\n"
    "  --page N       the page to convert, counting from 1\n"
    "  --all-pages    every page: appended to OUTPUT when the output format holds\n"
    "                 several pages (TIFF, PDF, DCX ...), else written as OUTPUT with\n"
    "                 -1, -2 ... before the extension\n"
    "  --format F     output format code or name as 'tesslin formats' lists them\n"
    "                 (tiff-g4, tiff-lzw, bmp, jpeg, png, pdf ...); without it the\n"
    "                 format follows the output's extension, and .tif/.tiff gives\n"
    "                 Group 4 for bilevel pages and LZW for others\n"
    "  --quality Q    JPEG quality 1..100 (default: the library's tables)\n"
    "\n"
    "Raw fax data (no header) is decoded with the geometry given:\n"
    "  --raw-fax MODE    2: Group 3 two-dimensional, 3: Group 3 one-dimensional with\n"
    "                    EOL codes, 4: Group 4, 5/6: ABIC (through the ABIC module),\n"
    "                    other values: Modified Huffman without EOL codes\n"
    "  --width W         pixels per row\n"
    "  --height H        rows; 0 or absent: up to the end of the page\n"
    "  --fill-order 1|2  1 (default): first pixel in the high bit of each byte,\n"
    "                    2: in the low bit\n"
    "\n"
    "The output is written to a temporary file beside it and renamed when complete:\n"
    "a failed conversion leaves no output behind and an existing OUTPUT untouched.\n";

const char* const kFormatsHelp =
    "usage: tesslin formats\n"
    "\n"
    "Lists every format code with its name, whether the library reads it (plug-in:\n"
    "through a separately installed module), writes it, and handles several pages.\n";

const char* const kTagsHelp =
    "usage: tesslin tags FILE [--page N]\n"
    "\n"
    "Lists the entries of the TIFF directory of page N (default 1) in file order:\n"
    "tag number and name, field type, value count and the first values (text in\n"
    "full up to 200 characters; numbers up to four, then the data's offset).\n"
    "  --page N   the page, counting from 1\n";

bool wants_help(int argc, char** argv) {
    for (int i = 0; i < argc; ++i)
        if (!std::strcmp(argv[i], "--help") || !std::strcmp(argv[i], "-h")) return true;
    return false;
}

bool parse_int(const char* text, int32_t* out) {
    char* end = nullptr;
    errno = 0;
    long v = std::strtol(text, &end, 10);
    if (errno || end == text || *end || v < INT32_MIN || v > INT32_MAX) return false;
    *out = static_cast<int32_t>(v);
    return true;
}

std::string lower(std::string s) {
    for (char& c : s) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    return s;
}

// ---- Progress bar -----------------------------------------------------

// Drawn on stderr while large images are decoded or saved, only when stderr
// is a terminal. Driven by the library's status-bar callback.
struct Progress {
    std::string label;
    int shown = -1;
    bool drawn = false;
};

int32_t draw_progress(intptr_t user, int32_t total, int32_t row, uint32_t) {
    auto* p = reinterpret_cast<Progress*>(user);
    if (total < 1000) return 0;
    const int pct = static_cast<int>((int64_t(row) + 1) * 100 / total);
    if (pct == p->shown) return 0;
    p->shown = pct;
    const int filled = pct * 30 / 100;
    std::fprintf(stderr, "\r%-24.24s [%.*s%*s] %3d%%", p->label.c_str(), filled,
                 "##############################", 30 - filled, "", pct);
    p->drawn = true;
    return 0;
}

class ProgressScope {
public:
    ProgressScope(Progress& p, std::string label) : p_(p) {
        enabled_ = isatty(STDERR_FILENO);
        if (!enabled_) return;
        p_.label = std::move(label);
        p_.shown = -1;
        IMG_set_statusbar(reinterpret_cast<intptr_t>(&p_), draw_progress, 1);
    }
    ~ProgressScope() {
        if (!enabled_) return;
        IMG_set_statusbar(0, nullptr, 0);
        if (p_.drawn) std::fprintf(stderr, "\r%*s\r", 62, "");
        p_.drawn = false;
    }

private:
    Progress& p_;
    bool enabled_ = false;
};

// ---- Formats ----------------------------------------------------------

constexpr int32_t kLastCode = 77;

bool format_info(int32_t code, IMG_FORMAT_INFO* info) {
    return IMGLOW_get_format_info(code, info) == 0;
}

std::string format_name(int32_t code) {
    IMG_FORMAT_INFO f;
    return format_info(code, &f) ? f.name : "unknown";
}

// A code from "--format": a number, or a name from the table.
int32_t code_from_option(const std::string& text) {
    int32_t code;
    if (parse_int(text.c_str(), &code)) return code;
    const std::string want = lower(text);
    for (int32_t c = 0; c <= kLastCode; ++c) {
        IMG_FORMAT_INFO f;
        if (format_info(c, &f) && want == f.name) return c;
    }
    if (want == "tif") return 0;
    if (want == "jpg") return 13;
    return -1;
}

std::string extension_of(const std::string& path) {
    const size_t slash = path.find_last_of('/');
    const size_t dot = path.find_last_of('.');
    if (dot == std::string::npos || (slash != std::string::npos && dot < slash)) return "";
    return lower(path.substr(dot + 1));
}

// The code an output name asks for: the first format whose usual extension
// it carries. TIFF picks its compression from the page: Group 4 for bilevel
// pages, LZW for everything else.
int32_t code_from_extension(const std::string& path, int32_t bits) {
    std::string ext = extension_of(path);
    if (ext == "tiff") ext = "tif";
    if (ext == "jpeg") ext = "jpg";
    if (ext.empty()) return -1;
    if (ext == "tif") return bits == 1 ? 10 : 9;
    int32_t known = -1;
    for (int32_t c = 0; c <= kLastCode; ++c) {
        IMG_FORMAT_INFO f;
        if (!format_info(c, &f) || ext != f.extension) continue;
        if (f.writes) return c;
        if (known < 0) known = c;
    }
    return known;
}

int cmd_formats(int argc, char** argv) {
    if (wants_help(argc, argv)) return std::fputs(kFormatsHelp, stdout), 0;
    if (argc) return usage_error("formats takes no arguments", "formats");
    std::printf("%4s  %-16s %-7s %-5s %-6s %s\n", "code", "name", "read", "write", "pages",
                "description");
    for (int32_t c = 0; c <= kLastCode; ++c) {
        IMG_FORMAT_INFO f;
        if (!format_info(c, &f)) continue;
        const char* reads = f.reads == 2 ? "plug-in" : f.reads ? "yes" : "-";
        std::printf("%4d  %-16s %-7s %-5s %-6s %s\n", c, f.name, reads, f.writes ? "yes" : "-",
                    f.multipage ? "yes" : "-", f.description);
    }
    return 0;
}

// ---- info -------------------------------------------------------------

int32_t keep_header(const IMG_BITMAPINFOHEADER* header, intptr_t user) {
    std::memcpy(reinterpret_cast<IMG_BITMAPINFOHEADER*>(user), header, sizeof *header);
    return IMG_ERR_STOP;
}

int32_t ignore_row(uint8_t*, intptr_t, int32_t, uint32_t) { return 0; }

// The header of one page (0-based), by a header-only decode.
int32_t page_header(const std::string& file, int32_t page, IMG_BITMAPINFOHEADER* out) {
    const int fd = open(file.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) return IMG_ERR_OPEN;
    std::memset(out, 0, sizeof *out);
    int32_t s = IMGLOW_decompress_bitmap(fd, 0, page, ignore_row,
                                         reinterpret_cast<intptr_t>(out), keep_header);
    close(fd);
    if (s == IMG_ERR_STOP) s = 0;
    if (s == 0 && out->biWidth <= 0) s = IMG_ERR_BAD_IMAGE;
    // A tiled page announces one tile: the page's own size comes from its
    // tile information.
    int32_t tiles[5];
    if (s == 0 && IMGLOW_get_tile_info(file.c_str(), tiles, page) >= 0) {
        out->biWidth = tiles[0];
        out->biHeight = tiles[1];
    }
    return s;
}

std::string json_string(const std::string& s) {
    std::string out = "\"";
    for (unsigned char c : s) {
        if (c == '"' || c == '\\') {
            out += '\\';
            out += char(c);
        } else if (c < 0x20) {
            char buf[8];
            std::snprintf(buf, sizeof buf, "\\u%04x", c);
            out += buf;
        } else {
            out += char(c);
        }
    }
    return out + "\"";
}

int info_one(const std::string& file, int32_t page, bool json) {
    const int32_t code = IMGLOW_get_filetype(file.c_str());
    if (code == IMG_ERR_OPEN) return fail(file, "cannot open", code);
    if (code < 0 && code != IMG_ERR_UNSUPPORTED) return fail(file, "cannot identify", code);
    const int32_t pages = IMGLOW_get_pages(file.c_str());
    IMG_BITMAPINFOHEADER h{};
    // Single-page readers ignore the page number: refuse pages beyond the count here.
    const int32_t s = page > pages ? IMG_ERR_NO_PAGE : page_header(file, page - 1, &h);
    if (json) {
        std::printf("{\"file\": %s, \"format_code\": %d, \"format\": %s, \"pages\": %d, "
                    "\"page\": %d",
                    json_string(file).c_str(), code,
                    code < 0 ? "null" : json_string(format_name(code)).c_str(), pages, page);
        if (s == 0)
            std::printf(", \"width\": %d, \"height\": %d, \"bits\": %d, \"xdpi\": %d, \"ydpi\": %d",
                        h.biWidth, h.biHeight, h.biBitCount, h.biXPelsPerMeter,
                        h.biYPelsPerMeter);
        std::printf("}\n");
    } else {
        IMG_FORMAT_INFO f{};
        std::printf("%s\n", file.c_str());
        if (code >= 0 && format_info(code, &f))
            std::printf("  format:      %d %s (%s)\n", code, f.name, f.description);
        else
            std::printf("  format:      not recognised\n");
        std::printf("  pages:       %d\n", pages);
        if (s == 0) {
            std::printf("  page %d:     %s%d x %d pixels, %d bit%s, %d x %d dpi\n", page,
                        page < 10 ? " " : "", h.biWidth, h.biHeight, h.biBitCount,
                        h.biBitCount == 1 ? "" : "s", h.biXPelsPerMeter, h.biYPelsPerMeter);
            const int32_t degrees = IMGLOW_get_image_orientation_page(file.c_str(), page - 1);
            if (degrees > 0) std::printf("  orientation: %d degrees\n", degrees);
        }
    }
    std::fflush(stdout);
    if (s != 0) return fail(file, "cannot read page " + std::to_string(page), s);
    return 0;
}

int cmd_info(int argc, char** argv) {
    if (wants_help(argc, argv)) return std::fputs(kInfoHelp, stdout), 0;
    std::vector<std::string> files;
    int32_t page = 1;
    bool json = false;
    for (int i = 0; i < argc; ++i) {
        const std::string a = argv[i];
        if (a == "--json") {
            json = true;
        } else if (a == "--page") {
            if (i + 1 >= argc || !parse_int(argv[++i], &page) || page < 1)
                return usage_error("--page needs a page number from 1", "info");
        } else if (a.size() > 1 && a[0] == '-') {
            return usage_error("unknown option " + a, "info");
        } else {
            files.push_back(a);
        }
    }
    if (files.empty()) return usage_error("info needs a file", "info");
    int status = 0;
    for (const auto& f : files)
        if (info_one(f, page, json) != 0) status = 1;
    return status;
}

// ---- convert ----------------------------------------------------------

struct ConvertOptions {
    std::string input, output, format;
    int32_t page = 1;
    bool all_pages = false;
    int32_t quality = -1;
    // Raw fax input (IMG_decompress_fax).
    bool raw_fax = false;
    int32_t raw_mode = 0, raw_width = 0, raw_height = 0, raw_fill_order = 1;
};

// A name in the output's directory for writing before the rename. It must
// not exist: saving a multi-page format into an existing file appends.
std::string temporary_beside(const std::string& output) {
    std::string pattern = output + ".tesslin-XXXXXX";
    std::vector<char> buf(pattern.begin(), pattern.end());
    buf.push_back(0);
    const int fd = mkstemp(buf.data());
    if (fd < 0) return "";
    close(fd);
    unlink(buf.data());
    return buf.data();
}

// OUTPUT with "-N" before the extension, for page N of a single-page format.
std::string numbered(const std::string& output, int32_t n) {
    const std::string ext = extension_of(output);
    if (ext.empty()) return output + "-" + std::to_string(n);
    return output.substr(0, output.size() - ext.size() - 1) + "-" + std::to_string(n) + "." +
           output.substr(output.size() - ext.size());
}

class Converter {
public:
    explicit Converter(const ConvertOptions& o) : o_(o) {}
    ~Converter() {
        // Whatever was not completed goes: temporaries, and finished outputs
        // of a run that failed later.
        for (const auto& t : temporaries_) unlink(t.c_str());
        if (failed_)
            for (const auto& f : finished_) unlink(f.c_str());
    }

    int run() {
        int32_t first = o_.page, last = o_.page;
        // Raw fax data has one page and no header to read beforehand.
        const int32_t pages = o_.raw_fax ? 1 : IMGLOW_get_pages(o_.input.c_str());
        if (pages < 1)
            return failed(o_.input, "cannot count pages", pages < 0 ? pages : IMG_ERR_NO_PAGE);
        if (o_.all_pages) {
            first = 1;
            last = pages;
        } else if (o_.page > pages) {
            // Single-page readers ignore the page number: refuse it here.
            return failed(o_.input, "cannot decode page " + std::to_string(o_.page),
                          IMG_ERR_NO_PAGE);
        }
        if (o_.quality >= 0) IMGLOW_set_comp_quality(o_.quality);
        IMG_BITMAPINFOHEADER first_header{};
        if (o_.raw_fax)
            first_header.biBitCount = o_.raw_mode == 6 ? 4 : 1;
        else if (int32_t s = page_header(o_.input, first - 1, &first_header))
            return failed(o_.input, "cannot decode page " + std::to_string(first), s);
        const int32_t code = choose_code(first_header.biBitCount);
        if (code == kUnknownFormat) return kUsageError;
        if (code < 0) return 1;
        IMG_FORMAT_INFO format{};
        format_info(code, &format);
        const bool appends = (format.multipage & 2) != 0;
        std::string target;  // the temporary of a multi-page output
        for (int32_t page = first; page <= last; ++page) {
            const int32_t handle = decode(page, last - first + 1);
            if (handle < 0) return 1;
            const bool one_file = appends || first == last;
            const std::string final_name = one_file ? o_.output : numbered(o_.output, page);
            if (target.empty() || !one_file) {
                target = temporary_beside(final_name);
                if (target.empty()) {
                    IMG_delete_bitmap(handle);
                    return failed(final_name, "cannot create", IMG_ERR_CREATE);
                }
                temporaries_.push_back(target);
            }
            int32_t s;
            {
                ProgressScope scope(progress_, "saving page " + std::to_string(page));
                s = IMG_save_bitmap(handle, target.c_str(), code);
            }
            IMG_delete_bitmap(handle);
            if (s < 0)
                return failed(final_name,
                              "cannot save page " + std::to_string(page) + " as " + format_name(code),
                              s);
            if (!one_file && !finish(target, final_name)) return 1;
        }
        if ((appends || first == last) && !finish(target, o_.output)) return 1;
        return 0;
    }

private:
    int failed(const std::string& file, const std::string& what, int32_t status) {
        failed_ = true;
        return fail(file, what, status);
    }

    int32_t decode(int32_t page, int32_t count) {
        ProgressScope scope(progress_, count > 1 ? "decoding page " + std::to_string(page)
                                                 : std::string("decoding"));
        int32_t tiles[5];
        const int32_t h =
            o_.raw_fax ? decode_raw_fax()
            : IMGLOW_get_tile_info(o_.input.c_str(), tiles, page - 1) >= 0
                ? IMG_decompress_tiled_bitmap(o_.input.c_str(), page - 1)
                : IMG_decompress_bitmap_page(o_.input.c_str(), page - 1);
        if (h < 0) {
            failed(o_.input, "cannot decode page " + std::to_string(page), h);
            return -1;
        }
        return h;
    }

    int32_t decode_raw_fax() {
        const int fd = open(o_.input.c_str(), O_RDONLY | O_CLOEXEC);
        if (fd < 0) return IMG_ERR_OPEN;
        const int32_t h = IMG_decompress_fax(fd, o_.raw_width, o_.raw_height, o_.raw_mode,
                                             o_.raw_fill_order);
        close(fd);
        return h;
    }

    int32_t choose_code(int32_t bits) {
        const int32_t code = o_.format.empty() ? code_from_extension(o_.output, bits)
                                               : code_from_option(o_.format);
        IMG_FORMAT_INFO f{};
        if (code < 0 || !format_info(code, &f)) {
            failed_ = true;
            if (o_.format.empty())
                usage_error("cannot tell the output format from the name " + o_.output +
                                "; give --format",
                            "convert");
            else
                usage_error("unknown format " + o_.format + "; 'tesslin formats' lists them",
                            "convert");
            return kUnknownFormat;
        }
        if (!f.writes) {
            failed(o_.output, std::string("cannot write ") + f.name, IMG_ERR_UNSUPPORTED);
            return -1;
        }
        return code;
    }

    bool finish(const std::string& temp, const std::string& final_name) {
        if (std::rename(temp.c_str(), final_name.c_str()) != 0) {
            failed(final_name, "cannot create", IMG_ERR_CREATE);
            return false;
        }
        for (auto it = temporaries_.begin(); it != temporaries_.end(); ++it)
            if (*it == temp) {
                temporaries_.erase(it);
                break;
            }
        finished_.push_back(final_name);
        return true;
    }

    const ConvertOptions& o_;
    Progress progress_;
    std::vector<std::string> temporaries_, finished_;
    bool failed_ = false;
};

int cmd_convert(int argc, char** argv) {
    if (wants_help(argc, argv)) return std::fputs(kConvertHelp, stdout), 0;
    ConvertOptions o;
    std::vector<std::string> names;
    bool page_given = false, raw_options = false;
    for (int i = 0; i < argc; ++i) {
        const std::string a = argv[i];
        auto value = [&]() -> const char* { return i + 1 < argc ? argv[++i] : nullptr; };
        if (a == "--page") {
            const char* v = value();
            if (!v || !parse_int(v, &o.page) || o.page < 1)
                return usage_error("--page needs a page number from 1", "convert");
            page_given = true;
        } else if (a == "--all-pages") {
            o.all_pages = true;
        } else if (a == "--format") {
            const char* v = value();
            if (!v) return usage_error("--format needs a code or name", "convert");
            o.format = v;
        } else if (a == "--quality") {
            const char* v = value();
            if (!v || !parse_int(v, &o.quality) || o.quality < 1 || o.quality > 100)
                return usage_error("--quality needs a value from 1 to 100", "convert");
        } else if (a == "--raw-fax") {
            const char* v = value();
            if (!v || !parse_int(v, &o.raw_mode))
                return usage_error("--raw-fax needs a mode number", "convert");
            o.raw_fax = true;
        } else if (a == "--width") {
            const char* v = value();
            if (!v || !parse_int(v, &o.raw_width) || o.raw_width < 1)
                return usage_error("--width needs a number of pixels from 1", "convert");
            raw_options = true;
        } else if (a == "--height") {
            const char* v = value();
            if (!v || !parse_int(v, &o.raw_height) || o.raw_height < 0)
                return usage_error("--height needs a number of rows from 0", "convert");
            raw_options = true;
        } else if (a == "--fill-order") {
            const char* v = value();
            if (!v || !parse_int(v, &o.raw_fill_order) ||
                (o.raw_fill_order != 1 && o.raw_fill_order != 2))
                return usage_error("--fill-order needs 1 or 2", "convert");
            raw_options = true;
        } else if (a.size() > 1 && a[0] == '-') {
            return usage_error("unknown option " + a, "convert");
        } else {
            names.push_back(a);
        }
    }
    if (names.size() != 2) return usage_error("convert needs an input and an output", "convert");
    if (page_given && o.all_pages)
        return usage_error("--page and --all-pages exclude each other", "convert");
    if (raw_options && !o.raw_fax)
        return usage_error("--width, --height and --fill-order go with --raw-fax", "convert");
    if (o.raw_fax && o.raw_width < 1) return usage_error("--raw-fax needs --width", "convert");
    if (o.raw_fax && (page_given || o.all_pages))
        return usage_error("raw fax data has one page: no --page or --all-pages", "convert");
    o.input = names[0];
    o.output = names[1];
    if (access(o.input.c_str(), R_OK) != 0) return fail(o.input, "cannot open", IMG_ERR_OPEN);
    return Converter(o).run();
}

// ---- tags -------------------------------------------------------------

struct TagName {
    uint16_t tag;
    const char* name;
};

// Baseline and extension tags, and the private ones document files carry.
constexpr TagName kTagNames[] = {
    {254, "NewSubfileType"}, {255, "SubfileType"}, {256, "ImageWidth"},
    {257, "ImageLength"}, {258, "BitsPerSample"}, {259, "Compression"},
    {262, "PhotometricInterpretation"}, {263, "Threshholding"}, {264, "CellWidth"},
    {265, "CellLength"}, {266, "FillOrder"}, {269, "DocumentName"},
    {270, "ImageDescription"}, {271, "Make"}, {272, "Model"}, {273, "StripOffsets"},
    {274, "Orientation"}, {277, "SamplesPerPixel"}, {278, "RowsPerStrip"},
    {279, "StripByteCounts"}, {280, "MinSampleValue"}, {281, "MaxSampleValue"},
    {282, "XResolution"}, {283, "YResolution"}, {284, "PlanarConfiguration"},
    {285, "PageName"}, {286, "XPosition"}, {287, "YPosition"}, {288, "FreeOffsets"},
    {289, "FreeByteCounts"}, {290, "GrayResponseUnit"}, {291, "GrayResponseCurve"},
    {292, "T4Options"}, {293, "T6Options"}, {296, "ResolutionUnit"}, {297, "PageNumber"},
    {301, "TransferFunction"}, {305, "Software"}, {306, "DateTime"}, {315, "Artist"},
    {316, "HostComputer"}, {317, "Predictor"}, {318, "WhitePoint"},
    {319, "PrimaryChromaticities"}, {320, "ColorMap"}, {321, "HalftoneHints"},
    {322, "TileWidth"}, {323, "TileLength"}, {324, "TileOffsets"}, {325, "TileByteCounts"},
    {326, "BadFaxLines"}, {327, "CleanFaxData"}, {328, "ConsecutiveBadFaxLines"},
    {330, "SubIFDs"}, {332, "InkSet"}, {333, "InkNames"}, {334, "NumberOfInks"},
    {336, "DotRange"}, {337, "TargetPrinter"}, {338, "ExtraSamples"},
    {339, "SampleFormat"}, {340, "SMinSampleValue"}, {341, "SMaxSampleValue"},
    {342, "TransferRange"}, {347, "JPEGTables"}, {512, "JPEGProc"},
    {513, "JPEGInterchangeFormat"}, {514, "JPEGInterchangeFormatLength"},
    {515, "JPEGRestartInterval"}, {517, "JPEGLosslessPredictors"},
    {518, "JPEGPointTransforms"}, {519, "JPEGQTables"}, {520, "JPEGDCTables"},
    {521, "JPEGACTables"}, {529, "YCbCrCoefficients"}, {530, "YCbCrSubSampling"},
    {531, "YCbCrPositioning"}, {532, "ReferenceBlackWhite"}, {700, "XMP"},
    {32781, "ImageID"}, {33432, "Copyright"}, {33723, "IPTC"}, {34377, "Photoshop"},
    {34665, "ExifIFD"}, {34675, "ICCProfile"}, {34732, "ImageLayer"},
    {34853, "GPSIFD"},
};

const char* tag_name(uint16_t tag) {
    for (const TagName& t : kTagNames)
        if (t.tag == tag) return t.name;
    return "";
}

const char* type_name(uint16_t type) {
    static const char* const names[] = {"",       "BYTE",   "ASCII",     "SHORT", "LONG",
                                        "RATIONAL", "SBYTE", "UNDEFINED", "SSHORT", "SLONG",
                                        "SRATIONAL", "FLOAT", "DOUBLE",    "IFD"};
    return type < sizeof names / sizeof names[0] ? names[type] : "?";
}

// The text of an ASCII field, quoted, with control bytes escaped and the
// trailing NUL dropped.
std::string ascii_value(const std::string& file, int32_t page, const IMG_TIFF_FIELD& f) {
    constexpr uint32_t kShown = 200;
    char text[kShown];
    int32_t unused = 0;
    const int32_t n = IMGLOW_get_tiff_tag_page(f.tag, int32_t(std::min(f.count, kShown)), &unused,
                                               file.c_str(), text, page);
    if (n < 0) return "(unreadable: " + status_text(n) + ")";
    int32_t len = n;
    while (len > 0 && text[len - 1] == 0) --len;
    std::string out = json_string(std::string(text, size_t(len)));
    if (f.count > kShown) out += " ...";
    return out;
}

std::string numeric_value(const IMG_TIFF_FIELD& f) {
    char buf[64];
    std::string out;
    const bool is_signed = f.type == 6 || f.type == 8 || f.type == 9 || f.type == 10;
    auto number = [&](uint32_t v) {
        std::snprintf(buf, sizeof buf, is_signed ? "%d" : "%u", is_signed ? int32_t(v) : v);
        return std::string(buf);
    };
    uint32_t shown = 0;
    if (f.type == 5 || f.type == 10) {
        // As decimals, the way the values mean; a zero denominator as it is.
        for (; shown < 2 && shown < f.count; ++shown) {
            const uint32_t num = f.value[2 * shown], den = f.value[2 * shown + 1];
            if (den == 0) {
                out += (shown ? ", " : "") + number(num) + "/0";
                continue;
            }
            const double q = is_signed ? double(int32_t(num)) / int32_t(den) : double(num) / den;
            std::snprintf(buf, sizeof buf, "%s%.6g", shown ? ", " : "", q);
            out += buf;
        }
    } else if (f.type == 11) {
        float v;
        std::memcpy(&v, &f.value[0], sizeof v);
        std::snprintf(buf, sizeof buf, "%g", double(v));
        out = buf;
        shown = 1;
    } else if (f.type == 12) {
        const uint64_t bits = uint64_t(f.value[1]) << 32 | f.value[0];
        double v;
        std::memcpy(&v, &bits, sizeof v);
        std::snprintf(buf, sizeof buf, "%g", v);
        out = buf;
        shown = 1;
    } else {
        for (; shown < 4 && shown < f.count; ++shown) out += (shown ? ", " : "") + number(f.value[shown]);
    }
    if (f.count > shown) {
        std::snprintf(buf, sizeof buf, "%s... (data at offset %u)", out.empty() ? "" : ", ",
                      f.offset);
        out += buf;
    }
    return out;
}

int cmd_tags(int argc, char** argv) {
    if (wants_help(argc, argv)) return std::fputs(kTagsHelp, stdout), 0;
    std::string file;
    int32_t page = 1;
    for (int i = 0; i < argc; ++i) {
        const std::string a = argv[i];
        if (a == "--page") {
            if (i + 1 >= argc || !parse_int(argv[++i], &page) || page < 1)
                return usage_error("--page needs a page number from 1", "tags");
        } else if (a.size() > 1 && a[0] == '-') {
            return usage_error("unknown option " + a, "tags");
        } else if (file.empty()) {
            file = a;
        } else {
            return usage_error("tags takes one file", "tags");
        }
    }
    if (file.empty()) return usage_error("tags needs a file", "tags");
    const std::string what = "cannot list the tags of page " + std::to_string(page);
    const int32_t n = IMGLOW_get_tiff_directory(file.c_str(), page - 1, nullptr, 0);
    if (n < 0) return fail(file, what, n);
    std::vector<IMG_TIFF_FIELD> fields(size_t(n) + 1);
    const int32_t again = IMGLOW_get_tiff_directory(file.c_str(), page - 1, fields.data(), n);
    if (again < 0) return fail(file, what, again);
    fields.resize(size_t(std::min(n, again)));
    std::printf("%s, page %d: %zu tag%s\n", file.c_str(), page, fields.size(),
                fields.size() == 1 ? "" : "s");
    for (const IMG_TIFF_FIELD& f : fields) {
        const std::string value = f.type == 2 ? ascii_value(file, page - 1, f) : numeric_value(f);
        std::printf("  %5u  %-28s %-9s %8u  %s\n", f.tag, tag_name(f.tag), type_name(f.type),
                    f.count, value.c_str());
    }
    return 0;
}

int cmd_version() {
    int32_t major = 0, minor = 0;
    IMG_ifl_version(&major, &minor);
    std::printf("tesslin %s (interface %d.%d)\n", TESSLIN_VERSION, major, minor);
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc < 2) {
        std::fputs(kMainHelp, stderr);
        return kUsageError;
    }
    const std::string cmd = argv[1];
    if (cmd == "--help" || cmd == "-h" || cmd == "help") return std::fputs(kMainHelp, stdout), 0;
    if (cmd == "--version" || cmd == "version") return cmd_version();
    if (cmd == "info") return cmd_info(argc - 2, argv + 2);
    if (cmd == "convert") return cmd_convert(argc - 2, argv + 2);
    if (cmd == "formats") return cmd_formats(argc - 2, argv + 2);
    if (cmd == "tags") return cmd_tags(argc - 2, argv + 2);
    std::fprintf(stderr, "tesslin: unknown command '%s'\n\n%s", cmd.c_str(), kMainHelp);
    return kUsageError;
}
