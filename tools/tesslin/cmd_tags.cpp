// tesslin tags: the entries of a page's TIFF directory.
#include <algorithm>
#include <cstdio>
#include <cstring>

#include "common.h"

namespace cli {

extern const char* const tags_help =
    "usage: tesslin tags FILE [--page N]\n"
    "\n"
    "Lists the entries of the TIFF directory of page N (default 1) in file order:\n"
    "tag number and name, field type, value count and the first values (text in\n"
    "full up to 200 characters; numbers up to four, then the data's offset).\n"
    "  --page N   the page, counting from 1\n";

namespace {

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

}  // namespace

int run_tags(int argc, char** argv) {
    std::string file;
    PageChoice choice;
    Args a("tags", argc, argv);
    while (a.next()) {
        if (a.is("--page")) {
            if (choice.accept(a) == Taken::kBad) return kUsageError;
        } else if (a.is_option()) {
            return a.unknown();
        } else if (file.empty()) {
            file = a.arg();
        } else {
            return a.usage("tags takes one file");
        }
    }
    if (file.empty()) return a.usage("tags needs a file");
    const int32_t page = choice.page;
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

}  // namespace cli
