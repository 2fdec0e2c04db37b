#include "transfer.h"

#include <curl/curl.h>

#include <memory>
#include <mutex>

namespace server {

void ensureCurlReady() {
    static std::once_flag once;
    std::call_once(once, [] { curl_global_init(CURL_GLOBAL_DEFAULT); });
}

namespace {

std::size_t collect(char* data, std::size_t size, std::size_t count, void* target) {
    auto* body = static_cast<std::string*>(target);
    // Replies here are small JSON objects; a runaway body is cut off rather than buffered.
    if (body->size() > 1 << 20) {
        return 0;
    }
    body->append(data, size * count);
    return size * count;
}

}  // namespace

std::variant<HttpReply, std::string> postOutbound(const std::string& url,
                                                  const std::vector<std::string>& headers,
                                                  const std::string& body, std::chrono::seconds timeout) {
    ensureCurlReady();
    std::unique_ptr<CURL, decltype(&curl_easy_cleanup)> curl(curl_easy_init(), curl_easy_cleanup);
    if (!curl) {
        return std::string("out of memory");
    }
    curl_slist* list = nullptr;
    for (const auto& header : headers) {
        list = curl_slist_append(list, header.c_str());
    }
    std::unique_ptr<curl_slist, decltype(&curl_slist_free_all)> headerList(list, curl_slist_free_all);

    HttpReply reply;
    curl_easy_setopt(curl.get(), CURLOPT_URL, url.c_str());
    curl_easy_setopt(curl.get(), CURLOPT_HTTPHEADER, headerList.get());
    curl_easy_setopt(curl.get(), CURLOPT_POSTFIELDS, body.c_str());
    curl_easy_setopt(curl.get(), CURLOPT_POSTFIELDSIZE, static_cast<long>(body.size()));
    curl_easy_setopt(curl.get(), CURLOPT_TIMEOUT, static_cast<long>(timeout.count()));
    curl_easy_setopt(curl.get(), CURLOPT_NOSIGNAL, 1L);
    curl_easy_setopt(curl.get(), CURLOPT_WRITEFUNCTION, collect);
    curl_easy_setopt(curl.get(), CURLOPT_WRITEDATA, &reply.body);
    const CURLcode result = curl_easy_perform(curl.get());
    if (result != CURLE_OK) {
        return std::string(curl_easy_strerror(result));
    }
    curl_easy_getinfo(curl.get(), CURLINFO_RESPONSE_CODE, &reply.status);
    return reply;
}

}  // namespace server
