#pragma once

#include <chrono>
#include <string>
#include <variant>
#include <vector>

namespace server {

// libcurl wants one process-wide initialisation before any handle exists; every user calls this first.
void ensureCurlReady();

struct HttpReply {
    long status = 0;
    std::string body;
};

// One whole outbound POST; the failure is a readable description of why no response came.
std::variant<HttpReply, std::string> postOutbound(const std::string& url,
                                                  const std::vector<std::string>& headers,
                                                  const std::string& body, std::chrono::seconds timeout);

}  // namespace server
