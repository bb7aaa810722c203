// Downloads from the data site: one file at a time, to a temporary name renamed when complete,
// so a failed or cut download never replaces a good file.
#include <atomic>
#include <cstdio>
#include <memory>
#include <mutex>

#include <curl/curl.h>
#include <fmt/format.h>

#include "params/params.h"
#include "refdata/refdata.h"

namespace orv::refdata {

namespace fs = std::filesystem;

namespace {

struct Sink {
    std::FILE* file = nullptr;
    std::size_t bytes = 0, maxBytes = 0;
    bool tooBig = false;
};

std::size_t writeChunk(char* data, std::size_t size, std::size_t count, void* user) {
    auto& sink = *static_cast<Sink*>(user);
    const std::size_t n = size * count;
    if (sink.bytes + n > sink.maxBytes) {
        sink.tooBig = true;
        return 0; // makes curl stop with a write error
    }
    sink.bytes += n;
    return std::fwrite(data, 1, n, sink.file);
}

struct CurlDeleter {
    void operator()(CURL* c) const noexcept { curl_easy_cleanup(c); }
};

} // namespace

std::string download(const std::string& url, const fs::path& target, const DownloadLimits& limits) {
    static std::once_flag once;
    std::call_once(once, [] { curl_global_init(CURL_GLOBAL_DEFAULT); });
    static std::atomic<unsigned> serial{0};
    fs::path temp = target;
    temp += fmt::format(".{}.part", serial.fetch_add(1));
    std::error_code ec;
    if (target.has_parent_path()) fs::create_directories(target.parent_path(), ec);
    Sink sink;
    sink.maxBytes = limits.maxBytes;
    sink.file = std::fopen(temp.c_str(), "wb");
    if (!sink.file) return fmt::format("cannot write {}", temp.string());
    std::unique_ptr<CURL, CurlDeleter> curl(curl_easy_init());
    char error[CURL_ERROR_SIZE] = {};
    CURLcode rc = CURLE_FAILED_INIT;
    long status = 0;
    if (curl) {
        CURL* c = curl.get();
        curl_easy_setopt(c, CURLOPT_URL, url.c_str());
        curl_easy_setopt(c, CURLOPT_WRITEFUNCTION, writeChunk);
        curl_easy_setopt(c, CURLOPT_WRITEDATA, &sink);
        curl_easy_setopt(c, CURLOPT_ERRORBUFFER, error);
        curl_easy_setopt(c, CURLOPT_FOLLOWLOCATION, 1L);
        curl_easy_setopt(c, CURLOPT_MAXREDIRS, 5L);
        curl_easy_setopt(c, CURLOPT_NOSIGNAL, 1L);
        curl_easy_setopt(c, CURLOPT_CONNECTTIMEOUT_MS, static_cast<long>(limits.connectTimeout.count()));
        curl_easy_setopt(c, CURLOPT_TIMEOUT_MS, static_cast<long>(limits.totalTimeout.count()));
        curl_easy_setopt(c, CURLOPT_SSL_VERIFYPEER, 1L);
        curl_easy_setopt(c, CURLOPT_SSL_VERIFYHOST, 2L);
        curl_easy_setopt(c, CURLOPT_PROTOCOLS_STR, "http,https");
        curl_easy_setopt(c, CURLOPT_USERAGENT, "Orvelline");
        rc = curl_easy_perform(c);
        curl_easy_getinfo(c, CURLINFO_RESPONSE_CODE, &status);
    }
    const bool closed = std::fclose(sink.file) == 0;
    std::string why;
    if (sink.tooBig)
        why = fmt::format("larger than {} bytes", limits.maxBytes);
    else if (rc != CURLE_OK)
        why = error[0] ? error : curl_easy_strerror(rc);
    else if (status != 200)
        why = fmt::format("HTTP status {}", status);
    else if (!closed)
        why = "the file could not be written";
    if (why.empty()) {
        fs::rename(temp, target, ec);
        if (!ec) return {};
        why = fmt::format("cannot rename to {}: {}", target.string(), ec.message());
    }
    fs::remove(temp, ec);
    return fmt::format("{}: {}", url, why);
}

std::string dataSiteBase() {
    std::string base = params::parameter<params::StringParameter>("DATA_SITE").value;
    if (!base.empty() && base.back() != '/') base += '/';
    return base;
}

} // namespace orv::refdata
