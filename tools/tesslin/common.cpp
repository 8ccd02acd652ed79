// The machinery the tesslin commands share; see common.h.
#include "common.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace cli {

// ---- Messages ----------------------------------------------------------------

std::string status_text(int32_t status) {
    return std::string(IMG_status_message(status)) + " (" + IMG_status_name(status) + ", " +
           std::to_string(status) + ")";
}

// "tesslin: scan.tif: cannot decode page 3: page does not exist (IMG_ERR_NO_PAGE, -11)"
int fail(const std::string& file, const std::string& what, int32_t status) {
    std::string reason = status == IMG_ERR_OPEN     ? input_reason(file)
                         : status == IMG_ERR_CREATE ? output_reason(file)
                                                    : "";
    if (!reason.empty()) reason = ": " + reason;
    std::fprintf(stderr, "tesslin: %s: %s: %s%s\n", file.c_str(), what.c_str(),
                 status_text(status).c_str(), reason.c_str());
    return 1;
}

int usage_error(const std::string& text, const char* command) {
    std::fprintf(stderr, "tesslin: %s\nrun 'tesslin %s --help' for usage\n", text.c_str(),
                 command ? command : "");
    return kUsageError;
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

// ---- Numbers -----------------------------------------------------------------

bool parse_int(const char* text, int32_t* out) {
    char* end = nullptr;
    errno = 0;
    long v = std::strtol(text, &end, 10);
    if (errno || end == text || *end || v < INT32_MIN || v > INT32_MAX) return false;
    *out = static_cast<int32_t>(v);
    return true;
}

namespace {

std::string lower(std::string s) {
    for (char& c : s) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    return s;
}

}  // namespace

// ---- Arguments ---------------------------------------------------------------

bool Args::next() {
    if (at_ + 1 >= argc_) return false;
    arg_ = argv_[++at_];
    return true;
}

bool Args::text(std::string* out, const char* need) {
    if (at_ + 1 >= argc_) {
        usage(need);
        return false;
    }
    *out = argv_[++at_];
    return true;
}

bool Args::number(int32_t* out, int32_t lo, int32_t hi, const char* need) {
    int32_t v = 0;
    if (at_ + 1 >= argc_ || !parse_int(argv_[++at_], &v) || v < lo || v > hi) {
        usage(need);
        return false;
    }
    *out = v;
    return true;
}

bool Args::name(std::vector<std::string>* names) const {
    if (is_option()) {
        unknown();
        return false;
    }
    names->push_back(arg_);
    return true;
}

// ---- Progress ----------------------------------------------------------------

ProgressScope::ProgressScope(std::string label) : label_(std::move(label)) {
    enabled_ = isatty(STDERR_FILENO);
    if (enabled_) IMG_set_statusbar(reinterpret_cast<intptr_t>(this), draw, 1);
}

ProgressScope::~ProgressScope() {
    if (!enabled_) return;
    IMG_set_statusbar(0, nullptr, 0);
    const int width = std::max<int>(24, int(label_.size()));
    if (drawn_) std::fprintf(stderr, "\r%*s\r", width + 38, "");
}

int32_t ProgressScope::draw(intptr_t user, int32_t total, int32_t row, uint32_t) {
    auto* p = reinterpret_cast<ProgressScope*>(user);
    if (total < 1000) return 0;
    const int pct = static_cast<int>((int64_t(row) + 1) * 100 / total);
    if (pct == p->shown_) return 0;
    p->shown_ = pct;
    const int filled = pct * 30 / 100;
    const int width = std::max<int>(24, int(p->label_.size()));
    std::fprintf(stderr, "\r%-*.*s [%.*s%*s] %3d%%", width, width, p->label_.c_str(), filled,
                 "##############################", 30 - filled, "", pct);
    p->drawn_ = true;
    return 0;
}

// ---- Formats -----------------------------------------------------------------

bool format_info(int32_t code, IMG_FORMAT_INFO* info) {
    return IMGLOW_get_format_info(code, info) == 0;
}

std::string format_name(int32_t code) {
    IMG_FORMAT_INFO f;
    return format_info(code, &f) ? f.name : "unknown";
}

int32_t code_from_option(const std::string& text) {
    int32_t code;
    if (parse_int(text.c_str(), &code)) return code;
    const std::string want = lower(text);
    for (int32_t c = 0; c <= kLastFormatCode; ++c) {
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

int32_t code_from_extension(const std::string& path, int32_t bits) {
    std::string ext = extension_of(path);
    if (ext == "tiff") ext = "tif";
    if (ext == "jpeg") ext = "jpg";
    if (ext.empty()) return -1;
    if (ext == "tif") return bits == 1 ? 10 : 9;
    int32_t known = -1;
    for (int32_t c = 0; c <= kLastFormatCode; ++c) {
        IMG_FORMAT_INFO f;
        if (!format_info(c, &f) || ext != f.extension) continue;
        if (f.writes) return c;
        if (known < 0) known = c;
    }
    return known;
}

// ---- Pages and files ---------------------------------------------------------

namespace {

int32_t keep_header(const IMG_BITMAPINFOHEADER* header, intptr_t user) {
    std::memcpy(reinterpret_cast<IMG_BITMAPINFOHEADER*>(user), header, sizeof *header);
    return IMG_ERR_STOP;
}

int32_t ignore_row(uint8_t*, intptr_t, int32_t, uint32_t) { return 0; }

}  // namespace

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

std::string numbered(const std::string& output, int32_t n) {
    const std::string ext = extension_of(output);
    if (ext.empty()) return output + "-" + std::to_string(n);
    return output.substr(0, output.size() - ext.size() - 1) + "-" + std::to_string(n) + "." +
           output.substr(output.size() - ext.size());
}

Taken PageChoice::accept(Args& a) {
    if (a.is("--page")) {
        page_given = true;
        return a.number(&page, 1, INT32_MAX, "--page needs a page number from 1") ? Taken::kYes
                                                                                  : Taken::kBad;
    }
    if (a.is("--all-pages")) {
        all = true;
        return Taken::kYes;
    }
    return Taken::kNo;
}

bool PageChoice::check(const Args& a) const {
    if (page_given && all) {
        a.usage("--page and --all-pages exclude each other");
        return false;
    }
    return true;
}

Taken number_option(Args& a, const char* name, int32_t* value, int32_t lo, int32_t hi, const char* need) {
    if (!a.is(name)) return Taken::kNo;
    return a.number(value, lo, hi, need) ? Taken::kYes : Taken::kBad;
}

Taken choice_option(Args& a, const char* name, int32_t* value, std::initializer_list<int32_t> allowed,
                    const char* need) {
    const Taken t = number_option(a, name, value, std::min(allowed), std::max(allowed), need);
    if (t != Taken::kYes || std::find(allowed.begin(), allowed.end(), *value) != allowed.end()) return t;
    a.usage(need);
    return Taken::kBad;
}

Taken PageJob::accept(Args& a) {
    if (const Taken t = pages.accept(a); t != Taken::kNo) return t;
    if (a.is("--format"))
        return a.text(&format, "--format needs a code or name") ? Taken::kYes : Taken::kBad;
    if (a.is("--quality"))
        return a.number(&quality, 1, 100, "--quality needs a value from 1 to 100") ? Taken::kYes
                                                                                    : Taken::kBad;
    if (a.is("--overwrite")) {
        overwrite = true;
        return Taken::kYes;
    }
    if (summary && a.is("--quiet")) {
        quiet = true;
        return Taken::kYes;
    }
    return Taken::kNo;
}

bool PageJob::parse(int argc, char** argv, const std::function<Taken(Args&)>& own) {
    std::vector<std::string> names;
    Args a(command, argc, argv);
    while (a.next()) {
        Taken t = accept(a);
        if (t == Taken::kNo && own) t = own(a);
        if (t == Taken::kBad) return false;
        if (t == Taken::kNo && !a.name(&names)) return false;
    }
    return take_names(a, names);
}

bool PageJob::take_names(const Args& a, const std::vector<std::string>& names) {
    if (names.size() != 2) {
        a.usage(std::string(a.command()) + " needs an input and an output");
        return false;
    }
    if (!pages.check(a)) return false;
    input = names[0];
    output = names[1];
    return true;
}

// ---- The page pipeline -------------------------------------------------------

namespace {

constexpr int32_t kUnknownFormat = -1000;

// One conversion of a page towards the depths every writer takes between
// them: 1-, 4- and 16-bit pages to 8-bit grey or palette, 24- and 32-bit
// pages to 256 colours, 8-bit pages to bilevel at mid grey (the fax and CALS
// writers). The new depth, or a negative status.
int32_t step_down(int32_t handle) {
    int32_t w = 0, h = 0, bits = 0;
    IMG_bitmap_info(handle, &w, &h, &bits);
    int32_t s;
    if (bits == 1 || bits == 4 || bits == 16)
        s = IMG_promote_8(handle);
    else if (bits == 24 || bits == 32)
        s = IMG_octree_color(handle, 8, nullptr, 256);
    else
        s = IMG_thresh_mono(handle, 128);
    if (s < 0) return s;
    IMG_bitmap_info(handle, &w, &h, &bits);
    return bits;
}

class PageRun {
public:
    PageRun(const PageJob& job, const PageTransform& transform) : job_(job), transform_(transform) {}
    ~PageRun() {
        // Whatever was not completed goes: temporaries, and finished outputs
        // of a run that failed later.
        for (const auto& t : temporaries_) unlink(t.c_str());
        if (failed_)
            for (const auto& f : finished_) unlink(f.c_str());
    }

    int run() {
        const bool raw = bool(job_.raw_decode);
        // Raw data has one page and no header to read beforehand.
        pages_ = raw ? 1 : IMGLOW_get_pages(job_.input.c_str());
        if (pages_ < 1)
            return failed(job_.input, "cannot count pages", pages_ < 0 ? pages_ : IMG_ERR_NO_PAGE);
        int32_t first = job_.pages.page, last = job_.pages.page;
        if (job_.pages.all) {
            first = 1;
            last = pages_;
        } else if (first > pages_) {
            // Single-page readers ignore the page number: refuse it here.
            return failed(job_.input, "cannot decode page " + std::to_string(first),
                          IMG_ERR_NO_PAGE);
        }
        count_ = last - first + 1;
        // A file cut short still gives the pages before the cut; the run
        // converts them and then reports the page it could not read.
        const bool cut = job_.pages.all && !raw && ends_early(job_.input);
        if (job_.quality >= 0) IMGLOW_set_comp_quality(job_.quality);
        // The format is settled before the first decode, from the first page's
        // header, so that a name that tells none fails at once.
        int32_t bits = job_.raw_bits;
        if (!raw) {
            IMG_BITMAPINFOHEADER header{};
            if (int32_t s = page_header(job_.input, first - 1, &header))
                return failed(job_.input, "cannot decode page " + std::to_string(first), s);
            bits = header.biBitCount;
        }
        int32_t code = choose_code(bits);
        if (code == kUnknownFormat) return kUsageError;
        if (code < 0) return 1;
        std::string target;  // the temporary of a multi-page output
        for (int32_t page = first; page <= last; ++page) {
            const int32_t handle = decode(page);
            if (handle < 0) return 1;
            if (transform_) {
                int32_t s;
                {
                    ProgressScope scope(label(job_.doing, page, false));
                    s = transform_(handle);
                }
                if (s < 0) {
                    IMG_delete_bitmap(handle);
                    return failed(job_.input,
                                  std::string("cannot ") + job_.action + " page " +
                                      std::to_string(page),
                                  s);
                }
                // The transform may change the depth: TIFF's compression
                // follows the first page as it is saved.
                if (page == first && job_.format.empty()) {
                    int32_t w = 0, h = 0, out_bits = 0;
                    IMG_bitmap_info(handle, &w, &h, &out_bits);
                    const int32_t again = code_from_extension(job_.output, out_bits);
                    IMG_FORMAT_INFO f{};
                    if (again >= 0 && format_info(again, &f) && f.writes) code = again;
                }
            }
            const bool one_file = appends(code) || first == last;
            const std::string final_name = one_file ? job_.output : numbered(job_.output, page);
            // An existing output is replaced only when asked: the library
            // would append to some files and replace others, and the rename
            // below always replaces.
            if ((target.empty() || !one_file) && !job_.overwrite && access(final_name.c_str(), F_OK) == 0) {
                IMG_delete_bitmap(handle);
                failed_ = true;
                std::fprintf(stderr, "tesslin: %s: exists; give --overwrite to replace it\n",
                             final_name.c_str());
                return 1;
            }
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
                ProgressScope scope(label("saving", page, true));
                s = IMG_save_bitmap(handle, target.c_str(), code);
                // A format that does not take the page's depth gets the page
                // converted towards one it may take, a step at a time.
                for (int step = 0; s == IMG_ERR_DEPTH && step < 2; ++step) {
                    const int32_t bits = step_down(handle);
                    if (bits < 0) break;
                    if (!job_.quiet)
                        std::fprintf(stderr, "tesslin: page %d: %s takes no pages of this depth; saving it as %d-bit\n",
                                     page, format_name(code).c_str(), bits);
                    s = IMG_save_bitmap(handle, target.c_str(), code);
                }
            }
            IMG_delete_bitmap(handle);
            if (s < 0)
                return failed(final_name,
                              "cannot save page " + std::to_string(page) + " as " + format_name(code),
                              s);
            if (!one_file && !finish(target, final_name)) return 1;
        }
        if ((appends(code) || first == last) && !finish(target, job_.output)) return 1;
        if (job_.summary && !job_.quiet) print_summary(code);
        if (cut) {
            std::fprintf(stderr,
                         "tesslin: %s: the file ends early: page %d cannot be read; "
                         "%d page%s converted\n",
                         job_.input.c_str(), pages_ + 1, count_, count_ == 1 ? " was" : "s were");
            return 1;
        }
        return 0;
    }

private:
    int failed(const std::string& file, const std::string& what, int32_t status) {
        failed_ = true;
        return fail(file, what, status);
    }

    static bool appends(int32_t code) {
        IMG_FORMAT_INFO f{};
        format_info(code, &f);
        return (f.multipage & 2) != 0;
    }

    // "decoding page 2 of 3"; convert's own labels: "decoding page 2" when it
    // converts several pages, "saving page 2" always.
    std::string label(const std::string& verb, int32_t page, bool always_numbered) const {
        if (!job_.page_totals)
            return always_numbered || count_ > 1 ? verb + " page " + std::to_string(page) : verb;
        if (pages_ < 2) return verb;
        return verb + " page " + std::to_string(page) + " of " + std::to_string(pages_);
    }

    int32_t decode(int32_t page) {
        ProgressScope scope(label("decoding", page, false));
        int32_t tiles[5];
        const int32_t h =
            job_.raw_decode ? job_.raw_decode()
            : IMGLOW_get_tile_info(job_.input.c_str(), tiles, page - 1) >= 0
                ? IMG_decompress_tiled_bitmap(job_.input.c_str(), page - 1)
                : IMG_decompress_bitmap_page(job_.input.c_str(), page - 1);
        if (h < 0) {
            failed(job_.input, "cannot decode page " + std::to_string(page), h);
            return -1;
        }
        return h;
    }

    int32_t choose_code(int32_t bits) {
        const int32_t code = job_.format.empty() ? code_from_extension(job_.output, bits)
                                                 : code_from_option(job_.format);
        IMG_FORMAT_INFO f{};
        if (code < 0 || !format_info(code, &f)) {
            failed_ = true;
            if (job_.format.empty())
                usage_error("cannot tell the output format from the name " + job_.output +
                                "; give --format",
                            job_.command);
            else
                usage_error("unknown format " + job_.format + "; 'tesslin formats' lists them",
                            job_.command);
            return kUnknownFormat;
        }
        if (!f.writes) {
            failed(job_.output, std::string("cannot write ") + f.name, IMG_ERR_UNSUPPORTED);
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

    // "wrote out.tif (tiff-g4, 3 pages)", "wrote out-1.bmp ... out-3.bmp (bmp, 3 pages)"
    void print_summary(int32_t code) const {
        if (finished_.empty()) return;
        std::string names = finished_.front();
        if (finished_.size() > 1) names += " ... " + finished_.back();
        std::printf("wrote %s (%s, %d page%s)\n", names.c_str(), format_name(code).c_str(),
                    count_, count_ == 1 ? "" : "s");
    }

    const PageJob& job_;
    const PageTransform& transform_;
    int32_t pages_ = 0, count_ = 0;
    std::vector<std::string> temporaries_, finished_;
    bool failed_ = false;
};

}  // namespace

int run_pages(const PageJob& job, const PageTransform& transform) {
    if (!input_reason(job.input).empty())
        return fail(job.input, "cannot open", IMG_ERR_OPEN);
    return PageRun(job, transform).run();
}

}  // namespace cli
