#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace server {

// Cuts a body that arrives in arbitrary pieces into lines at "\n", "\r\n" or "\r".
class StreamLines {
public:
    std::vector<std::string> feed(std::string_view bytes);
    // The last line when the body ended without a terminator.
    std::string finish();

private:
    std::string pending_;
    bool afterCarriageReturn_ = false;
};

}  // namespace server
