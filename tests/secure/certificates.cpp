#include "secure/certificates.hpp"

#include "support/stack_dump.hpp"

#include <fstream>
#include <stdexcept>

namespace {

std::string const OPENSSL = ZYM_OPENSSL_PROGRAM " ";

/// The options for a certificate of the past. OpenSSL 3.5 refuses negative days, and before 3.4 it
/// has nothing else.
std::string expired() {
    bool const takesDates =
        support::outputOf(OPENSSL + "x509 -help 2>&1").find("-not_after") != std::string::npos;
    return takesDates ? "-not_before 20200101000000Z -not_after 20200102000000Z" : "-days -1";
}

} // namespace

Certificates::Certificates() {
    makeAuthority("ca");
    makeAuthority("other");
    issue("server", "ca", "IP:127.0.0.1", "-days 30");
    issue("elsewhere", "ca", "DNS:elsewhere", "-days 30");
    issue("expired", "ca", "IP:127.0.0.1", expired());
    issue("client", "ca", "DNS:client", "-days 30");
    issue("stranger", "other", "DNS:stranger", "-days 30");
    run(OPENSSL + "pkey -aes256 -passout pass:" + KEY_PASSWORD
        + " -in client.key -out encrypted.key");
    run("mkdir authorities && cp ca.crt authorities && " + OPENSSL + "rehash authorities");
    run("touch passwords && mosquitto_passwd -b passwords " + std::string(USER) + " " + PASSWORD);
    std::ofstream(sharedKeys()) << USER << ":" << SHARED_KEY << "\n";
    std::ofstream(garbage()) << "garbage\n";
}

void Certificates::run(std::string const& command) const {
    auto const output =
        support::outputOf("cd " + files_.path() + " && { " + command + "; } 2>&1 || echo FAILED");
    if (output.find("FAILED") != std::string::npos) {
        throw std::runtime_error(command + "\n" + output);
    }
}

void Certificates::makeAuthority(std::string const& name) const {
    run(OPENSSL + "req -x509 -newkey ec -pkeyopt ec_paramgen_curve:P-256 -nodes -days 30 -subj /CN="
        + name + " -keyout " + name + ".key -out " + name + ".crt");
}

void Certificates::issue(std::string const& name, std::string const& authority,
                         std::string const& host, std::string const& validity) const {
    std::ofstream(file(name + ".ext")) << "subjectAltName=" << host << "\n";
    run(OPENSSL + "req -newkey ec -pkeyopt ec_paramgen_curve:P-256 -nodes -subj /CN=" + name
        + " -keyout " + name + ".key -out " + name + ".csr");
    run(OPENSSL + "x509 -req -in " + name + ".csr -CA " + authority + ".crt -CAkey " + authority
        + ".key -CAcreateserial " + validity + " -extfile " + name + ".ext -out " + name + ".crt");
}
