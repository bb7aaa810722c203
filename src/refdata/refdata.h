// Reference data: the small code types every subsystem speaks in, the aircraft and airline
// database, the airport directory and the encrypted data files.
#pragma once

#include <array>
#include <chrono>
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

namespace orv::refdata {

// ---- Fixed-width codes ----------------------------------------------------------------------

inline constexpr const char* kFixedCodeError = "FixedCode: invalid string (length/charset)";

// The one rule for a code: exactly n characters of A-Z or 0-9, lower-case ASCII folded up.
// Writes the folded bytes to out and returns true, or returns false and leaves out untouched.
bool foldCode(std::string_view text, std::size_t n, char* out) noexcept;

// N upper-case characters without terminator; all zero bytes is the empty code.
template <std::size_t N>
class FixedCode {
  public:
    FixedCode() = default;
    explicit FixedCode(std::string_view text) {
        if (!foldCode(text, N, bytes_.data())) throw std::invalid_argument(kFixedCodeError);
    }
    // The non-throwing twin, for readers that act on a bad code in their own way.
    static std::optional<FixedCode> tryMake(std::string_view text) noexcept {
        FixedCode c;
        if (!foldCode(text, N, c.bytes_.data())) return std::nullopt;
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
inline std::uint32_t codeWord(const AirportCode& c) noexcept {
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
constexpr AirlineModelKey airlineModelKey(AirlineId a, ModelId m) noexcept {
    return static_cast<AirlineModelKey>(a) | static_cast<AirlineModelKey>(m) << 16;
}

std::uint64_t fnv1a(std::string_view text) noexcept;

AirlineId airlineId(std::string_view code);
ModelId modelId(std::string_view code);
// Look-ups that never add: 0 for a code the tables do not hold (files from outside use these).
AirlineId knownAirlineId(std::string_view code);
ModelId knownModelId(std::string_view code);
std::string_view airlineCode(AirlineId id) noexcept;
std::string_view modelCode(ModelId id) noexcept;
std::size_t airlineCount() noexcept;
std::size_t modelCount() noexcept;

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
std::string_view categoryWord(Category c) noexcept;
std::optional<Category> categoryFromWord(std::string_view word) noexcept;

} // namespace orv::refdata

template <std::size_t N>
struct std::hash<orv::refdata::FixedCode<N>> {
    std::size_t operator()(const orv::refdata::FixedCode<N>& c) const noexcept {
        return static_cast<std::size_t>(orv::refdata::fnv1a(c.view()));
    }
};

namespace orv::refdata {

// ---- Reference data files -------------------------------------------------------------------

[[nodiscard]] bool versionStep();   // the check for a newer program and data; false ends the run
[[nodiscard]] bool readDataFiles(); // the reference database, once per process
[[nodiscard]] bool readAirports();  // the airport directory
void writeUnknownLists();           // types, airlines and registrations the database did not know

} // namespace orv::refdata

namespace orv::refdata {

// ---- Encrypted data files -------------------------------------------------------------------

// libsodium secretstream (XChaCha20-Poly1305): a 24-byte header, then chunks of 4096 plain bytes
// plus 17 bytes of authentication, the last one tagged final.
inline constexpr std::size_t kCryptChunk = 4096;

// Decrypts input into output; false (logged, no output left behind) on any failure.
[[nodiscard]] bool streamDecrypt(const std::filesystem::path& input, const std::filesystem::path& output);
// Encrypts input into output with the program's key; an empty string on success, else the reason.
[[nodiscard]] std::string streamEncrypt(const std::filesystem::path& input,
                                        const std::filesystem::path& output);
// Removes a file if it exists; a failure is only a warning in the log.
void removeFile(const std::filesystem::path& path);

} // namespace orv::refdata

namespace orv::refdata {

// ---- Airport directory ----------------------------------------------------------------------

struct AirportRecord {
    AirportCode code;
    IataCode iata;
    double latitude = 0.0;
    double longitude = 0.0;
    float elevation = 0.0f;
    std::int32_t stands = 0;
    std::int32_t stockStatus = 0; // 1 or more: the data site has a stock airport file for it
};

// Reads input/airports.enc of the program folder once per process; whether any airport is known.
[[nodiscard]] bool readAirports();
// The work behind it, for a given encrypted file; throws UserErrorException 88 on a broken file.
std::size_t loadAirports(const std::filesystem::path& encrypted);
// The plain file's reading alone; the file is removed afterwards in every case.
std::size_t parseAirportsXml(const std::filesystem::path& plain);
void clearAirports();

bool airportKnown(const AirportCode& code);
const AirportRecord* airportRecord(const AirportCode& code); // null when not in the directory
const AirportRecord* airportByName(std::string_view text);
const AirportRecord* airportInText(std::string_view text);
const std::vector<AirportRecord>& airports();

// A runway's centre line from end to end, and its width.
struct Runway {
    double lat1 = 0, lon1 = 0, lat2 = 0, lon2 = 0, widthM = 0;
};
// The runways of an airport from input/runways.csv of the program folder; none when unknown.
std::vector<Runway> runwaysOf(const AirportCode& code);

// ---- Downloads from the data site -------------------------------------------------------------

struct DownloadLimits {
    std::size_t maxBytes = std::size_t{64} << 20;
    std::chrono::milliseconds connectTimeout{10000}, totalTimeout{60000};
};
// Fetches `url` into `target` through a temporary file; empty on success, else why not.
// Certificates are checked; a file past the cap, an HTTP error or a time-out leaves no file.
std::string download(const std::string& url, const std::filesystem::path& target,
                     const DownloadLimits& limits = {});
// The data site's base URL from the settings, ending in "/"; empty when none is set.
std::string dataSiteBase();

// Distance in nautical miles from a position to an airport's nearest stand, with the stand's
// name; the airport files fill this in. Without it the closest airport simply wins.
struct StandDistance {
    std::string stand;
    double nm;
};
using StandDistanceFn =
    std::function<std::optional<StandDistance>(const AirportRecord&, double lat, double lon)>;
void setStandDistance(StandDistanceFn fn);

// The airport within 5 nm of the position, settled by the stands when a neighbour is as near.
std::optional<AirportRecord> closestAirport(double latitude, double longitude);

} // namespace orv::refdata

namespace orv::refdata {

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
const ReferenceDatabase& dbase();

inline constexpr std::size_t kHalfSpanTableSize = 2700;

// Reads input/dbase.enc of the program folder once per process.
[[nodiscard]] bool readDbase();
// The work behind it for one encrypted file; false when the XML does not parse.
[[nodiscard]] bool loadDbase(const std::filesystem::path& encrypted);
// The plain file's reading alone; the file is removed afterwards in every case.
[[nodiscard]] bool parseDbaseXml(const std::filesystem::path& plain);
void clearDbase();

Category category(ModelId model);
bool isModel(std::string_view text);
bool isAirline(std::string_view text);
// A database airline's handle, 0 for any other code; takes no lock and adds nothing.
AirlineId knownAirline(std::string_view code) noexcept;
double halfSpan(ModelId model);
double largestHalfSpan();
std::vector<std::string> regcodeVariants(std::string_view regcode);
std::optional<DbaseRecord> dbaseRecordOf(std::string_view regcode);
std::string airlineOfRegcode(std::string_view regcode);
std::string regcodeInTitle(std::string_view title);
bool isUsableAircraft(std::string_view type, std::string_view emitterCategory);

} // namespace orv::refdata
