// Reference data: the small code types every subsystem speaks in, the string helpers the file
// readers share, and the user-facing error type.
#pragma once

#include <array>
#include <compare>
#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <map>
#include <optional>
#include <set>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

namespace orv {

// ---- Fixed-width codes ----------------------------------------------------------------------

inline constexpr const char* kFixedCodeError = "FixedCode: invalid string (length/charset)";

// The one rule for a code: exactly n characters of A-Z or 0-9, lower-case ASCII folded up.
// Writes the folded bytes to out and returns true, or returns false and leaves out untouched.
bool gf_foldCode(std::string_view text, std::size_t n, char* out) noexcept;

// N upper-case characters without terminator; all zero bytes is the empty code.
template <std::size_t N>
class FixedCode {
  public:
    FixedCode() = default;
    explicit FixedCode(std::string_view text) {
        if (!gf_foldCode(text, N, bytes_.data())) throw std::invalid_argument(kFixedCodeError);
    }
    // The non-throwing twin, for readers that act on a bad code in their own way.
    static std::optional<FixedCode> tryMake(std::string_view text) noexcept {
        FixedCode c;
        if (!gf_foldCode(text, N, c.bytes_.data())) return std::nullopt;
        return c;
    }
    // N characters; the empty code shows N blanks so that tables stay aligned.
    std::string_view view() const noexcept {
        return empty() ? std::string_view(kBlanks, N) : std::string_view(bytes_.data(), N);
    }
    bool empty() const noexcept { return bytes_[0] == 0; }
    const std::array<char, N>& bytes() const noexcept { return bytes_; }

    friend bool operator==(const FixedCode&, const FixedCode&) = default;
    friend auto operator<=>(const FixedCode&, const FixedCode&) = default;

  private:
    static constexpr char kBlanks[] = "    ";
    static_assert(N < sizeof kBlanks);
    std::array<char, N> bytes_{};
};

using AirportCode = FixedCode<4>;
using IataCode = FixedCode<3>;

// An airport code as one 32-bit word, for fast keys.
inline std::uint32_t gf_codeWord(const AirportCode& c) noexcept {
    const auto& b = c.bytes();
    return static_cast<std::uint32_t>(static_cast<unsigned char>(b[0])) |
           static_cast<std::uint32_t>(static_cast<unsigned char>(b[1])) << 8 |
           static_cast<std::uint32_t>(static_cast<unsigned char>(b[2])) << 16 |
           static_cast<std::uint32_t>(static_cast<unsigned char>(b[3])) << 24;
}

// ---- Interned code tables -------------------------------------------------------------------

using AirlineId = std::uint16_t;
using ModelId = std::uint16_t;

// Airline in the low half, model in the high half.
using AirlineModelKey = std::uint32_t;
constexpr AirlineModelKey gf_airlineModelKey(AirlineId a, ModelId m) noexcept {
    return static_cast<AirlineModelKey>(a) | static_cast<AirlineModelKey>(m) << 16;
}

std::uint64_t gf_fnv1a(std::string_view text) noexcept;

AirlineId gf_airlineId(std::string_view code);
ModelId gf_modelId(std::string_view code);
std::string_view gf_airlineCode(AirlineId id) noexcept;
std::string_view gf_modelCode(ModelId id) noexcept;
std::size_t gf_airlineCount() noexcept;
std::size_t gf_modelCount() noexcept;

// ---- Category -------------------------------------------------------------------------------

enum class Category : std::uint8_t {
    Light = 0,
    Buzjets = 1,
    Large = 2,
    Heavy = 3,
    HighPerf = 4,
    Rotorcraft = 5
};
inline constexpr int kCategoryCount = 6;
std::string_view gf_categoryWord(Category c) noexcept;
std::optional<Category> gf_categoryFromWord(std::string_view word) noexcept;

// ---- Strings --------------------------------------------------------------------------------

std::string gf_trim(std::string_view text);
std::vector<std::string> gf_splitList(std::string_view text);
std::string gf_trimList(std::string_view text);
std::string gf_toUpper(std::string_view text);
bool gf_iequals(std::string_view a, std::string_view b) noexcept;

// Strict: invalid input throws std::runtime_error, nothing is replaced.
std::u16string utf8_to_wide(std::string_view text);
std::string wide_to_utf8(std::u16string_view text);
// One line of the ANSI code page to UTF-8: strict first, then lenient, else empty.
std::string gf_ansiToUtf8(std::string_view line);

// ---- User errors ----------------------------------------------------------------------------

// An error the user must read and act on; code 99 shows its text alone.
class UserErrorException : public std::runtime_error {
  public:
    UserErrorException(std::int32_t number, const std::string& text);
    std::int32_t number() const noexcept { return number_; }
    const std::string& text() const noexcept { return text_; }

  private:
    std::int32_t number_;
    std::string text_;
};

} // namespace orv

template <std::size_t N>
struct std::hash<orv::FixedCode<N>> {
    std::size_t operator()(const orv::FixedCode<N>& c) const noexcept {
        return static_cast<std::size_t>(orv::gf_fnv1a(c.view()));
    }
};

namespace orv {

// ---- Reference data files -------------------------------------------------------------------

bool gf_versionStep();       // the check for a newer program and data; false ends the run
bool gf_readDataFiles();     // the reference database, once per process
bool gf_readAirports();      // the airport directory
void gf_writeUnknownLists(); // types, airlines and registrations the database did not know

} // namespace orv

namespace orv {

// ---- Encrypted data files -------------------------------------------------------------------

// libsodium secretstream (XChaCha20-Poly1305): a 24-byte header, then chunks of 4096 plain bytes
// plus 17 bytes of authentication, the last one tagged final.
inline constexpr std::size_t kCryptChunk = 4096;

// Decrypts input into output; false (logged, no output left behind) on any failure.
bool gf_streamDecrypt(const std::filesystem::path& input, const std::filesystem::path& output);
// Encrypts input into output with the program's key; an empty string on success, else the reason.
std::string gf_streamEncrypt(const std::filesystem::path& input, const std::filesystem::path& output);
// Removes a file if it exists; a failure is only a warning in the log.
void gf_removeFile(const std::filesystem::path& path);

} // namespace orv

namespace orv {

// ---- Airport directory ----------------------------------------------------------------------

struct AirportRecord {
    AirportCode code;
    IataCode iata;
    double latitude = 0.0;
    double longitude = 0.0;
    float elevation = 0.0f;
    std::int32_t stands = 0;
};

// Reads input/airports.enc of the program folder once per process; whether any airport is known.
bool gf_readAirports();
// The work behind it, for a given encrypted file; throws UserErrorException 88 on a broken file.
std::size_t gf_loadAirports(const std::filesystem::path& encrypted);
// The plain file's reading alone; the file is removed afterwards in every case.
std::size_t gf_parseAirportsXml(const std::filesystem::path& plain);
void gf_clearAirports();

bool gf_airportKnown(const AirportCode& code);
const AirportRecord* gf_airportByName(std::string_view text);
const AirportRecord* gf_airportInText(std::string_view text);
const std::vector<AirportRecord>& gf_airports();

// Distance in nautical miles from a position to an airport's nearest stand, with the stand's
// name; the airport files fill this in. Without it the closest airport simply wins.
struct StandDistance {
    std::string stand;
    double nm;
};
using StandDistanceFn =
    std::function<std::optional<StandDistance>(const AirportRecord&, double lat, double lon)>;
void gf_setStandDistance(StandDistanceFn fn);

// The airport within 5 nm of the position, settled by the stands when a neighbour is as near.
std::optional<AirportRecord> gf_closestAirport(double latitude, double longitude);

} // namespace orv

namespace orv {

// ---- Reference database ---------------------------------------------------------------------

struct DbaseRecord {
    std::string regcode;
    AirlineId airline = 0;
    ModelId model = 0;
    AirlineId operatorId = 0;
    bool cargo = false;
};

struct Thirdparty {
    std::string publisher;
    std::vector<std::string> airports;
};

// What dbase.xml holds, in memory; filled once at start and constant afterwards.
struct ReferenceDatabase {
    std::set<std::string> models, cargoTypes, airlines, cargoOperators, simaddons20;
    std::array<std::set<ModelId>, kCategoryCount> categories; // Light stays empty: it is the rest
    std::vector<std::vector<std::string>> similarGroups;
    std::vector<std::vector<std::string>> publisherSpellings;
    std::map<std::string, double> wingSpans; // half spans in nm, by type text
    std::map<std::string, std::string> modelFixes;
    std::vector<Thirdparty> thirdparties20, thirdparties24;
    std::vector<DbaseRecord> records; // sorted by registration, unique
};
const ReferenceDatabase& gf_dbase();

inline constexpr std::size_t kHalfSpanTableSize = 2700;

// Reads input/dbase.enc of the program folder once per process.
bool gf_readDbase();
// The work behind it for one encrypted file; false when the XML does not parse.
bool gf_loadDbase(const std::filesystem::path& encrypted);
// The plain file's reading alone; the file is removed afterwards in every case.
bool gf_parseDbaseXml(const std::filesystem::path& plain);
void gf_clearDbase();

Category gf_category(ModelId model);
bool gf_isModel(std::string_view text);
bool gf_isAirline(std::string_view text);
double gf_halfSpan(ModelId model);
double gf_largestHalfSpan();
std::vector<std::string> gf_regcodeVariants(std::string_view regcode);
std::optional<DbaseRecord> gf_dbaseRecordOf(std::string_view regcode);
std::string gf_airlineOfRegcode(std::string_view regcode);
std::string gf_regcodeInTitle(std::string_view title);
bool gf_isUsableAircraft(std::string_view type, std::string_view emitterCategory);

} // namespace orv
