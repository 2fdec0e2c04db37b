#include "fuzzinput.h"
#include "httpserver.h"

#include <QDir>
#include <QFile>
#include <QTemporaryDir>

#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstring>
#include <regex>
#include <thread>

namespace {

// Written beside the releases folder: no request may ever read it through the server.
const QByteArray secret = QByteArrayLiteral("not-for-any-client-7f3a9c");

class SilentMailer final : public server::Mailer {
public:
    std::optional<std::string> send(const std::string&, const std::string&, const std::string&) override {
        return std::nullopt;
    }
};

struct Endpoint {
    const char* method;
    const char* path;
};

constexpr std::array endpoints{
    Endpoint{"POST", "/auth/start"}, Endpoint{"POST", "/auth/verify"}, Endpoint{"POST", "/auth/signout"},
    Endpoint{"GET", "/me"},          Endpoint{"POST", "/usage"},       Endpoint{"GET", "/stt-token"},
    Endpoint{"POST", "/answer"},     Endpoint{"GET", "/releases/"},
};

// Whether `response` holds a whole final response. The server keeps a connection open after refusing
// a request it could not read (its Connection header unread), so the end of a response is found by its
// own framing rather than by the connection's end.
bool isComplete(const QByteArray& response) {
    qsizetype start = 0;
    while (response.sliced(start).startsWith("HTTP/1.1 1")) {  // interim responses, such as 100 Continue
        const qsizetype end = response.indexOf("\r\n\r\n", start);
        if (end < 0) {
            return false;
        }
        start = end + 4;
    }
    const qsizetype headEnd = response.indexOf("\r\n\r\n", start);
    if (headEnd < 0) {
        return false;
    }
    const QByteArray head = response.sliced(start, headEnd - start).toLower();
    const qsizetype body = headEnd + 4;
    if (head.contains("\r\ntransfer-encoding: chunked")) {
        return response.endsWith("\r\n0\r\n\r\n") || response.sliced(body).startsWith("0\r\n\r\n");
    }
    const qsizetype lengthAt = head.indexOf("\r\ncontent-length: ");
    if (lengthAt < 0) {
        return false;  // ends with the connection
    }
    const qsizetype valueAt = lengthAt + qsizetype(sizeof "\r\ncontent-length: ") - 1;
    const qsizetype length = head.mid(valueAt, head.indexOf("\r\n", valueAt) - valueAt).toLongLong();
    return response.size() - body >= length;
}

// A socket invariant that also says why the call failed, so that a broken one tells the harness's own
// faults from the server's.
void requireSocket(bool succeeded, const char* invariant) {
    if (!succeeded) {
        std::fprintf(stderr, "socket call failed: %s\n", std::strerror(errno));
    }
    require(succeeded, invariant);
}

struct Exchange {
    QByteArray response;
    bool sentWhole = false;
};

// One request on a fresh loopback connection. With `halfClose` the client's half is closed once the
// request is sent, so that a request cut short ends at once rather than when the server's read times
// out; the server then reads to the end but may leave its response unsent.
Exchange exchange(int port, const QByteArray& request, bool halfClose) {
    const int socket = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    requireSocket(socket >= 0, "the fuzzer has a socket");
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<uint16_t>(port));
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    // A connect cut short by the fuzzer's timer signal goes on by itself; asking again says how it ended.
    int outcome = 0;
    do {
        outcome = ::connect(socket, reinterpret_cast<sockaddr*>(&address), sizeof address);
    } while (outcome != 0 && (errno == EINTR || errno == EALREADY));
    requireSocket(outcome == 0 || errno == EISCONN, "the server still accepts connections");
    const timeval timeout{10, 0};
    setsockopt(socket, SOL_SOCKET, SO_RCVTIMEO, &timeout, sizeof timeout);

    Exchange result;
    qsizetype sent = 0;
    while (sent < request.size()) {
        const ssize_t n =
            ::send(socket, request.constData() + sent, size_t(request.size() - sent), MSG_NOSIGNAL);
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n <= 0) {
            break;
        }
        sent += n;
    }
    result.sentWhole = sent == request.size();
    if (halfClose) {
        ::shutdown(socket, SHUT_WR);
    }
    char buffer[16 * 1024];
    while (!isComplete(result.response)) {
        const ssize_t n = ::recv(socket, buffer, sizeof buffer, 0);
        // The fuzzer's own timer signal cuts a wait short, and with a receive time-out set the call is
        // not restarted by itself.
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n == 0 || (n < 0 && errno == ECONNRESET)) {
            break;
        }
        requireSocket(n > 0, "the server answers within ten seconds");
        result.response.append(buffer, n);
    }
    ::close(socket);
    return result;
}

QByteArray jsonRequest(const QByteArray& path, const QByteArray& body, const QByteArray& headers = {}) {
    return "POST " + path +
           " HTTP/1.1\r\nHost: 127.0.0.1\r\nConnection: close\r\nContent-Type: application/json\r\n" +
           headers + "Content-Length: " + QByteArray::number(body.size()) + "\r\n\r\n" + body;
}

int status(const QByteArray& response) {
    static const std::regex statusLine("^HTTP/1\\.1 ([1-5][0-9][0-9]) [^\\r\\n]*\\r\\n");
    std::cmatch match;
    const std::string head = response.left(256).toStdString();
    if (!std::regex_search(head.c_str(), match, statusLine)) {
        return 0;
    }
    return std::stoi(match[1].str());
}

// The server under test, with its data, a releases folder and the secret beside it, for the whole run.
class Fixture {
public:
    Fixture() {
        require(root_.isValid(), "the fuzzer has a temporary folder");
        const QDir root(root_.path());
        root.mkpath(QStringLiteral("data"));
        root.mkpath(QStringLiteral("releases"));
        write(root.filePath(QStringLiteral("secret.txt")), secret);
        write(root.filePath(QStringLiteral("releases/latest.json")),
              R"({"version":"0.2.0","zip":"Tallowind-0.2.0.zip","sha256":"00"})");

        server::ServerConfig config;
        config.host = "127.0.0.1";
        config.port = 0;
        config.devMode = true;
        config.dataDir = root.filePath(QStringLiteral("data")).toStdString();
        config.releasesDir = root.filePath(QStringLiteral("releases")).toStdString();
        config.threads = 4;
        config.maxBodyBytes = 64 * 1024;
        config.codesPerEmail = INT_MAX;
        config.codesPerAddress = INT_MAX;
        server_ = std::make_unique<server::HttpServer>(config, server::systemClock(),
                                                       std::make_unique<SilentMailer>());
        port_ = server_->bind();
        require(port_ != 0, "the server binds a loopback port");
        thread_ = std::thread([this] { server_->run(); });
        while (!server_->running()) {
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
        signIn();
    }

    ~Fixture() {
        server_->stop();
        thread_.join();
    }

    int port() const { return port_; }
    const QByteArray& token() const { return token_; }

    // A fresh session token for the requests that carry one.
    void signIn() {
        const QByteArray email = R"("email":"fuzz@example.org")";
        const QByteArray started =
            exchange(port_, jsonRequest("/auth/start", "{" + email + "}"), false).response;
        const QByteArray code = field(started, "devCode");
        const QByteArray verified =
            exchange(port_, jsonRequest("/auth/verify", "{" + email + R"(,"code":")" + code + "\"}"), false)
                .response;
        token_ = field(verified, "token");
        if (token_.isEmpty()) {
            std::fprintf(stderr, "sign-in answered:\n%s\n%s\n", started.constData(), verified.constData());
        }
        require(!token_.isEmpty(), "the fuzzer signs in");
    }

private:
    static void write(const QString& path, const QByteArray& bytes) {
        QFile file(path);
        require(file.open(QIODevice::WriteOnly) && file.write(bytes) == bytes.size(), "the fuzzer writes");
    }

    static QByteArray field(const QByteArray& response, const QByteArray& key) {
        const QByteArray marker = "\"" + key + "\":\"";
        const qsizetype start = response.indexOf(marker);
        if (start < 0) {
            return {};
        }
        const qsizetype begin = start + marker.size();
        return response.mid(begin, response.indexOf('"', begin) - begin);
    }

    QTemporaryDir root_;
    std::unique_ptr<server::HttpServer> server_;
    std::thread thread_;
    int port_ = 0;
    QByteArray token_;
};

// Made before the first input; stops the server when the process exits.
Fixture& fixture() {
    static Fixture instance;
    return instance;
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    fixture();
    return 0;
}

// The first byte picks an endpoint, or a request sent exactly as the input has it. For an endpoint,
// the second byte says whether the live session token goes along, then come what is appended to the
// path, the header lines and the body, the first two ended by a NUL.
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    FuzzInput input(data, size);
    const size_t choice = input.byte() % (endpoints.size() + 1);
    QByteArray request;
    bool lengthIsOurs = false;
    bool signsOut = false;
    if (choice == endpoints.size()) {
        request = input.rest();
    } else {
        const Endpoint endpoint = endpoints[choice];
        const bool authorized = input.byte() & 1;
        const QByteArray pathTail = input.until('\0');
        const QByteArray headers = input.until('\0');
        const QByteArray body = input.rest();
        // The first Connection header counts: the server closes once it has answered.
        request = QByteArray(endpoint.method) + ' ' + endpoint.path + pathTail +
                  " HTTP/1.1\r\nHost: 127.0.0.1\r\nConnection: close\r\n";
        if (authorized) {
            request += "Authorization: Bearer " + fixture().token() + "\r\n";
        }
        request += headers;
        if (!headers.isEmpty() && !headers.endsWith('\n')) {
            request += "\r\n";
        }
        const QByteArray lower = headers.toLower();
        lengthIsOurs = !lower.contains("content-length") && !lower.contains("transfer-encoding") &&
                       !pathTail.contains('\n') && !pathTail.contains('\r');
        request += "Content-Length: " + QByteArray::number(body.size()) + "\r\n\r\n" + body;
        signsOut = authorized && choice == 2;
    }

    const Exchange answer = exchange(fixture().port(), request, !lengthIsOurs);
    const int code = status(answer.response);
    require(answer.response.isEmpty() || code != 0, "every response starts with a status line");
    require(!lengthIsOurs || !answer.sentWhole || !answer.response.isEmpty(), "a whole request is answered");
    require(code != 500, "no request makes the server fail internally");
    require(!answer.response.contains(secret), "no request reads a file outside the releases folder");
    if (signsOut) {
        fixture().signIn();
    }
    return 0;
}
