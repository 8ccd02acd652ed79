// Registry descriptors of the fax containers: IMT and BTR (read and
// written), KFX, LSD and MAG (read).
#include "formats/faxcontainers/faxcontainers.h"

namespace tesslin::faxcontainers {
namespace {

bool is_kfx(const Probe& p) { return p.starts_with(".KF"); }
bool is_lsd(const Probe& p) { return p.bytes[0] == 0xDC && p.bytes[1] == 0xDC; }
bool is_btr(const Probe& p) { return p.bytes[0] == 0xBB && p.bytes[3] == 1; }
bool is_mag(const Probe& p) { return p.starts_with("WTI"); }
bool is_imt(const Probe& p) { return p.bytes_are({'\'', 'C', '1', 0}); }

constexpr CodeRow kLsdCodes[] = {{IMG_FORMAT_LSD, "lsd", "LSD fax container", "lsd"}};
constexpr CodeRow kKfxCodes[] = {{IMG_FORMAT_KFX, "kfx", "KFX fax container", "kfx"}};
constexpr CodeRow kMagCodes[] = {{IMG_FORMAT_MAG, "mag", "MAG", "mag"}};
constexpr CodeRow kBtrCodes[] = {
    {IMG_FORMAT_BTR, "btr", "BTR", "btr", encode_btr, 0, RowSupply::kRuns, false, true}};
constexpr CodeRow kImtCodes[] = {
    {IMG_FORMAT_IMT, "imt", "IMT fax container", "imt", encode_imt, 0, RowSupply::kRuns, false,
     true}};

}  // namespace
}  // namespace tesslin::faxcontainers

namespace tesslin::formats {

namespace fc = faxcontainers;

extern const FormatDescriptor kKfx = {
    .tag = "kfx", .detect_switch = IMG_FORMAT_KFX, .signature = fc::is_kfx,
    .decode = fc::decode_kfx, .codes = fc::kKfxCodes};
extern const FormatDescriptor kLsd = {
    .tag = "lsd", .detect_switch = IMG_FORMAT_LSD, .signature = fc::is_lsd,
    .decode = fc::decode_lsd, .codes = fc::kLsdCodes};
extern const FormatDescriptor kBtr = {
    .tag = "btr", .detect_switch = IMG_FORMAT_BTR, .signature = fc::is_btr,
    .decode = fc::decode_btr, .codes = fc::kBtrCodes};
extern const FormatDescriptor kMag = {
    .tag = "mag", .detect_switch = IMG_FORMAT_MAG, .signature = fc::is_mag,
    .decode = fc::decode_mag, .count_pages = fc::count_mag_pages, .codes = fc::kMagCodes};
extern const FormatDescriptor kImt = {
    .tag = "imt", .detect_switch = IMG_FORMAT_IMT, .signature = fc::is_imt,
    .decode = fc::decode_imt, .codes = fc::kImtCodes};

}  // namespace tesslin::formats
