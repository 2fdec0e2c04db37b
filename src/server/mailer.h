#pragma once

#include <memory>
#include <optional>
#include <string>

namespace server {

// Delivers the sign-in e-mail.
class Mailer {
public:
    virtual ~Mailer() = default;
    // Blocks until the message is handed over; returns the reason when it could not be.
    virtual std::optional<std::string> send(const std::string& to, const std::string& subject,
                                            const std::string& body) = 0;
};

struct SmtpSettings {
    std::string url;  // smtp://host:587 (STARTTLS when offered, required with a user) or smtps://host:465
    std::string user;
    std::string password;
    std::string from;  // the sender address
};

std::unique_ptr<Mailer> makeSmtpMailer(SmtpSettings settings);

}  // namespace server
