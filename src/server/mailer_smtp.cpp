#include "mailer.h"
#include "transfer.h"

#include <curl/curl.h>

#include <ctime>
#include <string_view>

namespace server {

namespace {

struct Upload {
    std::string message;
    std::size_t sent = 0;
};

std::size_t readMessage(char* buffer, std::size_t size, std::size_t count, void* source) {
    auto* upload = static_cast<Upload*>(source);
    const std::size_t length = std::min(size * count, upload->message.size() - upload->sent);
    upload->message.copy(buffer, length, upload->sent);
    upload->sent += length;
    return length;
}

// Header values come from configuration and user input: a line break would let them add headers.
std::string oneLine(std::string_view text) {
    std::string line;
    for (const char c : text) {
        line += (c == '\r' || c == '\n') ? ' ' : c;
    }
    return line;
}

std::string rfc5322Date() {
    const std::time_t now = std::time(nullptr);
    std::tm parts{};
    gmtime_r(&now, &parts);
    char text[64];
    std::strftime(text, sizeof text, "%a, %d %b %Y %H:%M:%S +0000", &parts);
    return text;
}

class SmtpMailer final : public Mailer {
public:
    explicit SmtpMailer(SmtpSettings settings) : settings_(std::move(settings)) {}

    std::optional<std::string> send(const std::string& to, const std::string& subject,
                                    const std::string& body) override {
        ensureCurlReady();
        CURL* curl = curl_easy_init();
        if (!curl) {
            return "out of memory";
        }
        Upload upload;
        upload.message = "Date: " + rfc5322Date() + "\r\nTo: <" + oneLine(to) + ">\r\nFrom: <" +
                         oneLine(settings_.from) + ">\r\nSubject: " + oneLine(subject) +
                         "\r\nMIME-Version: 1.0\r\nContent-Type: text/plain; charset=utf-8\r\n\r\n";
        for (const char c : body) {
            if (c == '\n') {
                upload.message += "\r\n";
            } else {
                upload.message += c;
            }
        }
        upload.message += "\r\n";

        curl_slist* recipients = curl_slist_append(nullptr, ("<" + oneLine(to) + ">").c_str());
        const std::string from = "<" + oneLine(settings_.from) + ">";
        curl_easy_setopt(curl, CURLOPT_URL, settings_.url.c_str());
        curl_easy_setopt(curl, CURLOPT_MAIL_FROM, from.c_str());
        curl_easy_setopt(curl, CURLOPT_MAIL_RCPT, recipients);
        curl_easy_setopt(curl, CURLOPT_READFUNCTION, readMessage);
        curl_easy_setopt(curl, CURLOPT_READDATA, &upload);
        curl_easy_setopt(curl, CURLOPT_UPLOAD, 1L);
        curl_easy_setopt(curl, CURLOPT_TIMEOUT, 30L);
        curl_easy_setopt(curl, CURLOPT_NOSIGNAL, 1L);
        if (!settings_.user.empty()) {
            curl_easy_setopt(curl, CURLOPT_USERNAME, settings_.user.c_str());
            curl_easy_setopt(curl, CURLOPT_PASSWORD, settings_.password.c_str());
            // A password never crosses the network in clear text.
            curl_easy_setopt(curl, CURLOPT_USE_SSL, static_cast<long>(CURLUSESSL_ALL));
        } else {
            curl_easy_setopt(curl, CURLOPT_USE_SSL, static_cast<long>(CURLUSESSL_TRY));
        }
        const CURLcode result = curl_easy_perform(curl);
        curl_slist_free_all(recipients);
        curl_easy_cleanup(curl);
        if (result != CURLE_OK) {
            return std::string(curl_easy_strerror(result));
        }
        return std::nullopt;
    }

private:
    SmtpSettings settings_;
};

}  // namespace

std::unique_ptr<Mailer> makeSmtpMailer(SmtpSettings settings) {
    return std::make_unique<SmtpMailer>(std::move(settings));
}

}  // namespace server
