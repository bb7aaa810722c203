#include <array>
#include <cstdio>
#include <fstream>
#include <memory>
#include <stdexcept>

#include <fmt/format.h>
#include <sodium.h>

#include "core/core.h"
#include "refdata/refdata.h"

namespace orv::refdata {

namespace {

using Stream = crypto_secretstream_xchacha20poly1305_state;
constexpr std::size_t kHeader = crypto_secretstream_xchacha20poly1305_HEADERBYTES;
constexpr std::size_t kCipherChunk = kCryptChunk + crypto_secretstream_xchacha20poly1305_ABYTES;
static_assert(kHeader == 24 && kCipherChunk == 4113);

// The key of the shipped data files. It only keeps the files from being read casually; anyone
// with the program has it.
constexpr std::array<unsigned char, crypto_secretstream_xchacha20poly1305_KEYBYTES> kKey = {
    0x4f, 0x72, 0x76, 0x65, 0x6c, 0x6c, 0x69, 0x6e, 0x65, 0x2d, 0x72, 0x65, 0x66, 0x64, 0x61, 0x74,
    0x61, 0x9c, 0x3e, 0x51, 0xd2, 0x07, 0xa8, 0x6b, 0x14, 0xf3, 0x2a, 0xc5, 0x88, 0x5e, 0x39, 0xe0};

void ensureSodium() {
    if (sodium_init() < 0) throw std::runtime_error("libsodium could not start");
}

fs::path tempBeside(const fs::path& p) {
    fs::path t = p;
    t += ".part";
    return t;
}

std::size_t readUpTo(std::ifstream& in, unsigned char* buf, std::size_t n) {
    in.read(reinterpret_cast<char*>(buf), static_cast<std::streamsize>(n));
    return static_cast<std::size_t>(in.gcount());
}

} // namespace

void removeFile(const fs::path& path) {
    std::error_code ec;
    fs::remove(path, ec);
    if (ec) core::log(fmt::format("Warning: could not remove {}, errorcode: {}", path.string(), ec.value()));
}

bool streamDecrypt(const fs::path& input, const fs::path& output) {
    const fs::path temp = tempBeside(output);
    try {
        ensureSodium();
        std::ifstream in(input, std::ios::binary);
        if (!in) throw std::runtime_error("Could not open input file: " + input.string());
        {
            std::ofstream out(temp, std::ios::binary | std::ios::trunc);
            if (!out) throw std::runtime_error("Could not open output file: " + output.string());
            std::array<unsigned char, kHeader> header{};
            Stream state;
            if (readUpTo(in, header.data(), header.size()) != kHeader ||
                crypto_secretstream_xchacha20poly1305_init_pull(&state, header.data(), kKey.data()) != 0)
                throw std::runtime_error("Invalid header or key");
            const auto cipher = std::make_unique<unsigned char[]>(kCipherChunk);
            const auto plain = std::make_unique<unsigned char[]>(kCryptChunk);
            // A file that ends without the final tag is taken as far as it goes.
            for (std::size_t n = readUpTo(in, cipher.get(), kCipherChunk); n > 0;
                 n = readUpTo(in, cipher.get(), kCipherChunk)) {
                unsigned long long plainLength = 0;
                unsigned char tag = 0;
                if (crypto_secretstream_xchacha20poly1305_pull(&state, plain.get(), &plainLength, &tag,
                                                               cipher.get(), n, nullptr, 0) != 0)
                    throw std::runtime_error("Decryption failed");
                out.write(reinterpret_cast<const char*>(plain.get()),
                          static_cast<std::streamsize>(plainLength));
                if (tag == crypto_secretstream_xchacha20poly1305_TAG_FINAL) break;
            }
            out.flush();
            if (!out) throw std::runtime_error("Could not write output file: " + output.string());
        }
        fs::rename(temp, output);
        return true;
    } catch (const std::exception& e) {
        core::log(fmt::format("{} exception: {}", "streamDecrypt", e.what()));
        std::error_code ec;
        fs::remove(temp, ec);
        fs::remove(output, ec);
        return false;
    }
}

std::string streamEncrypt(const fs::path& input, const fs::path& output) {
    const fs::path temp = tempBeside(output);
    try {
        ensureSodium();
        std::ifstream in(input, std::ios::binary);
        if (!in) return "Could not open input file: " + input.string();
        {
            std::ofstream out(temp, std::ios::binary | std::ios::trunc);
            if (!out) return "Could not open output file: " + output.string();
            std::array<unsigned char, kHeader> header{};
            Stream state;
            crypto_secretstream_xchacha20poly1305_init_push(&state, header.data(), kKey.data());
            out.write(reinterpret_cast<const char*>(header.data()), header.size());
            const auto plain = std::make_unique<unsigned char[]>(kCryptChunk);
            const auto cipher = std::make_unique<unsigned char[]>(kCipherChunk);
            // Every chunk but the last is full, so a read that fills the buffer is followed by
            // a peek: the final tag goes on the chunk after which nothing is left.
            std::size_t n = readUpTo(in, plain.get(), kCryptChunk);
            while (true) {
                const bool last = n < kCryptChunk || in.peek() == std::char_traits<char>::eof();
                unsigned long long cipherLength = 0;
                crypto_secretstream_xchacha20poly1305_push(
                    &state, cipher.get(), &cipherLength, plain.get(), n, nullptr, 0,
                    last ? crypto_secretstream_xchacha20poly1305_TAG_FINAL : 0);
                out.write(reinterpret_cast<const char*>(cipher.get()),
                          static_cast<std::streamsize>(cipherLength));
                if (last) break;
                n = readUpTo(in, plain.get(), kCryptChunk);
            }
            out.flush();
            if (!out) throw std::runtime_error("Could not write output file: " + output.string());
        }
        fs::rename(temp, output);
        return {};
    } catch (const std::exception& e) {
        std::error_code ec;
        fs::remove(temp, ec);
        return e.what();
    }
}

} // namespace orv::refdata
