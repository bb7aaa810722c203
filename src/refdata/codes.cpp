#include "refdata/refdata.h"

#include <atomic>
#include <memory>
#include <mutex>
#include <unordered_map>

#include <fmt/format.h>

namespace orv::refdata {

bool foldCode(std::string_view text, std::size_t n, char* out) noexcept {
    if (text.size() != n) return false;
    char folded[8];
    if (n > sizeof folded) return false;
    for (std::size_t i = 0; i < n; ++i) {
        char c = text[i];
        if (c >= 'a' && c <= 'z') c = static_cast<char>(c - 'a' + 'A');
        if (!((c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9'))) return false;
        folded[i] = c;
    }
    for (std::size_t i = 0; i < n; ++i) out[i] = folded[i];
    return true;
}

std::uint64_t fnv1a(std::string_view text) noexcept {
    std::uint64_t h = 14695981039346656037ull;
    for (const char c : text) {
        h ^= static_cast<unsigned char>(c);
        h *= 1099511628211ull;
    }
    return h;
}

namespace {

struct Fnv1aHash {
    using is_transparent = void;
    std::size_t operator()(std::string_view s) const noexcept { return static_cast<std::size_t>(fnv1a(s)); }
};

// Handles are 16 bits, so the table never holds more than 65536 texts: the slots are allocated
// once, a published slot never moves or changes, and reading a handle's text takes no lock.
// Appends (the traffic reader, scan threads) and text look-ups serialise on one mutex.
class InternTable {
  public:
    InternTable() : slots_(std::make_unique<std::string[]>(kCapacity)) { slots_[0] = std::string(); }

    std::uint16_t idOf(std::string_view text) {
        std::lock_guard lock(mutex_);
        if (text.empty()) return 0;
        if (const auto it = index_.find(text); it != index_.end()) return it->second;
        const std::size_t n = size_.load(std::memory_order_relaxed);
        if (n >= kCapacity) throw std::length_error(fmt::format("code table full at '{}'", text));
        slots_[n] = std::string(text);
        const auto id = static_cast<std::uint16_t>(n);
        index_.emplace(slots_[n], id);
        size_.store(n + 1, std::memory_order_release);
        return id;
    }

    std::uint16_t find(std::string_view text) {
        std::lock_guard lock(mutex_);
        const auto it = index_.find(text);
        return it == index_.end() ? 0 : it->second;
    }

    std::string_view textOf(std::uint16_t id) const noexcept {
        if (id >= size_.load(std::memory_order_acquire)) return {};
        return slots_[id];
    }

    std::size_t size() const noexcept { return size_.load(std::memory_order_acquire); }

  private:
    static constexpr std::size_t kCapacity = 65536;
    std::unique_ptr<std::string[]> slots_;
    std::atomic<std::size_t> size_{1};
    std::mutex mutex_;
    std::unordered_map<std::string_view, std::uint16_t, Fnv1aHash, std::equal_to<>> index_;
};

InternTable& airlines() {
    static InternTable t;
    return t;
}
InternTable& models() {
    static InternTable t;
    return t;
}

constexpr std::string_view kCategoryWords[kCategoryCount] = {"Light", "Buzjets",  "Large",
                                                             "Heavy", "HighPerf", "Rotorcraft"};
} // namespace

AirlineId airlineId(std::string_view code) {
    return airlines().idOf(code);
}
ModelId modelId(std::string_view code) {
    return models().idOf(code);
}
AirlineId knownAirlineId(std::string_view code) {
    return airlines().find(code);
}
ModelId knownModelId(std::string_view code) {
    return models().find(code);
}
std::string_view airlineCode(AirlineId id) noexcept {
    return airlines().textOf(id);
}
std::string_view modelCode(ModelId id) noexcept {
    return models().textOf(id);
}
std::size_t airlineCount() noexcept {
    return airlines().size();
}
std::size_t modelCount() noexcept {
    return models().size();
}

std::string_view categoryWord(Category c) noexcept {
    const auto i = static_cast<std::size_t>(c);
    return i < kCategoryCount ? kCategoryWords[i] : std::string_view{};
}

std::optional<Category> categoryFromWord(std::string_view word) noexcept {
    for (int i = 0; i < kCategoryCount; ++i)
        if (kCategoryWords[i] == word) return static_cast<Category>(i);
    return std::nullopt;
}

} // namespace orv::refdata
