#include "pages/StaticFiles.h"

#include <array>
#include <fstream>
#include <system_error>

namespace tavrel {
namespace {

namespace fs = std::filesystem;

// The LED images: one 13 x 13 GIF89a, a lit disc with a darker rim and a highlight on a transparent
// ground (colour 0), drawn in the three colours of each light (bytes 16-24 of the colour table).
constexpr size_t kColoursAt = 16;
constexpr std::array<unsigned char, 143> kLedShape = {
    0x47, 0x49, 0x46, 0x38, 0x39, 0x61, 0x0D, 0x00, 0x0D, 0x00, 0xF1, 0x00, 0x00, 0xFF, 0xFF, 0xFF,
    0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x21, 0xF9, 0x04, 0x01, 0x00, 0x00, 0x00,
    0x00, 0x2C, 0x00, 0x00, 0x00, 0x00, 0x0D, 0x00, 0x0D, 0x00, 0x00, 0x02, 0x60, 0x04, 0x08, 0x30,
    0x61, 0xC2, 0x80, 0x00, 0x01, 0x02, 0x4C, 0x28, 0x51, 0x61, 0x40, 0x80, 0x00, 0x23, 0x4A, 0x94,
    0x28, 0x31, 0x20, 0xC0, 0x88, 0x1B, 0x27, 0x4A, 0x94, 0x18, 0x30, 0xA1, 0xC6, 0x8D, 0x12, 0x25,
    0x2A, 0x4C, 0x28, 0x71, 0xE3, 0x44, 0x89, 0x12, 0x15, 0x46, 0x94, 0x28, 0x51, 0xA2, 0x44, 0x89,
    0x09, 0x25, 0x4A, 0x94, 0x28, 0x51, 0xA2, 0xC2, 0x84, 0x12, 0x25, 0x4A, 0x94, 0xA8, 0x30, 0x60,
    0x44, 0x89, 0x12, 0x25, 0x4A, 0x0C, 0x08, 0x30, 0xA2, 0x44, 0x89, 0x12, 0x03, 0x02, 0x04, 0x98,
    0x50, 0xA2, 0xC2, 0x80, 0x00, 0x01, 0x02, 0x4C, 0x98, 0x30, 0x20, 0x40, 0x14, 0x00, 0x3B,
};

constexpr std::array<unsigned char, 143> Led(std::array<unsigned char, 9> rimBodyHighlight) {
  auto gif = kLedShape;
  for (size_t i = 0; i < rimBodyHighlight.size(); ++i) gif[kColoursAt + i] = rimBodyHighlight[i];
  return gif;
}

constexpr auto kLedRed = Led({0x60, 0x00, 0x00, 0xE0, 0x00, 0x00, 0xFF, 0xA0, 0xA0});
constexpr auto kLedGreen = Led({0x00, 0x50, 0x00, 0x00, 0xC8, 0x00, 0xAA, 0xFF, 0xAA});
constexpr auto kLedYellow = Led({0x6E, 0x5A, 0x00, 0xF0, 0xC8, 0x00, 0xFF, 0xF5, 0xAA});

constexpr char kStyleSheet[] =
    "body { font-family: Verdana, Arial, sans-serif; font-size: small; }\r\n"
    ".TABLECOLUMN { font-weight: bold; color: #FFFFFF; background-color: #31639C; }\r\n"
    ".TABLEHEADER { font-weight: bold; color: #FFFFFF; background-color: #63639C; }\r\n"
    ".TABLEROWODD { color: #000000; background-color: #C0C0C0; }\r\n"
    ".TABLEROWEVEN { color: #000000; background-color: #949494; }\r\n"
    ".TABLECELLCUSTOM { color: #FFFFFF; background-color: #000000; }\r\n";

template <size_t N>
std::string_view Bytes(const std::array<unsigned char, N>& data) {
  return {reinterpret_cast<const char*>(data.data()), N};
}

const StaticFile kFiles[] = {
    {"led-Red.gif", Bytes(kLedRed)},
    {"led-Green.gif", Bytes(kLedGreen)},
    {"led-yellow.gif", Bytes(kLedYellow)},
    {"StyleNoBody.css", {kStyleSheet, sizeof kStyleSheet - 1}},
};

}  // namespace

std::span<const StaticFile> StaticFiles() { return kFiles; }

void WriteStaticFiles(const fs::path& htmlFolder, Reporter& reporter) {
  std::error_code ec;
  fs::create_directories(htmlFolder, ec);
  for (const StaticFile& file : kFiles) {
    const fs::path path = htmlFolder / file.name;
    if (fs::exists(path, ec)) continue;
    // Written under a temporary name first, so a cut-short write never passes for the file.
    const fs::path temporary = path.string() + ".tmp";
    {
      std::ofstream out(temporary, std::ios::binary | std::ios::trunc);
      out.write(file.bytes.data(), static_cast<std::streamsize>(file.bytes.size()));
      out.close();
      if (!out) ec = std::make_error_code(std::errc::io_error);
    }
    if (!ec) fs::rename(temporary, path, ec);
    if (ec) {
      fs::remove(temporary, ec);
      reporter.WriteLog(kModule, "WriteStaticFiles " + path.string() + ": " + ec.message());
      ec.clear();
    }
  }
}

}  // namespace tavrel
