#pragma once

#include <mutex>
#include <string>

namespace tavelo::cloud {

// Outgoing mail. Without an SMTP relay every mail is appended to a spool
// file (mode 0600) that the server's owner reads and forwards by hand.
class Mailer {
public:
    explicit Mailer(std::string spoolPath);
    // Throws std::runtime_error when the mail cannot be stored.
    void send(const std::string& to, const std::string& subject, const std::string& body);
    const std::string& spoolPath() const { return spoolPath_; }

private:
    std::string spoolPath_;
    std::mutex mutex_;
};

} // namespace tavelo::cloud
