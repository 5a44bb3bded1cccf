#include "client/connection_settings.hpp"

#include "client/arguments.hpp"

#include <mosquitto.h>

#include <algorithm>
#include <cerrno>
#include <utility>

#include <unistd.h>

namespace mqtt {

namespace {

using Error = MqttClient::Error;
using Reason = Failure::Reason;

constexpr int OK = static_cast<int>(Error::SUCCESS);
constexpr std::size_t LONGEST_TEXT = 65'535; ///< its length has two bytes in a packet

/// Whether the library can pass it on: it reads a text to its first zero byte.
bool isText(std::string const& text) {
    return text.size() <= LONGEST_TEXT && text.find('\0') == std::string::npos;
}

bool isUserName(std::string const& name) {
    return !name.empty() && isText(name) && isUtf8(name);
}

bool areValid(Credentials const& credentials) {
    return isUserName(credentials.userName) && isText(credentials.password);
}

bool isValid(PreSharedKey const& secret) {
    constexpr char digits[] = "0123456789abcdefABCDEF";
    return isUserName(secret.identity) && !secret.key.empty() && secret.key.size() % 2 == 0
           && secret.key.find_first_not_of(digits) == std::string::npos;
}

bool isValid(Tls const& tls) {
    bool const hasFiles = !tls.caFile.empty() || !tls.caFolder.empty()
                          || !tls.certificateFile.empty() || !tls.keyFile.empty();
    if (tls.preSharedKey) {
        return !hasFiles && !tls.keyPassword && isValid(*tls.preSharedKey);
    }
    return tls.certificateFile.empty() == tls.keyFile.empty()
           && (!tls.keyPassword || !tls.keyFile.empty());
}

bool areValid(ConnectionOptions const& options) {
    return (!options.credentials || areValid(*options.credentials))
           && (!options.credentials || !options.credentialsFunction)
           && (!options.tls || isValid(*options.tls));
}

/// The folder of the authorities; empty for none.
std::string caFolder(Tls const& tls) {
    return tls.caFile.empty() && tls.caFolder.empty() ? Tls::SYSTEM_CA_FOLDER : tls.caFolder;
}

char const* orNull(std::string const& text) {
    return text.empty() ? nullptr : text.c_str();
}

/// Checked here, because the library does not say which file cannot be read, nor why.
Failure checkFiles(Tls const& tls) {
    for (auto const& path : {tls.caFile, caFolder(tls), tls.certificateFile, tls.keyFile}) {
        if (!path.empty() && ::access(path.c_str(), R_OK) != 0) {
            return {Reason::TLS_FILES, errno, {}, path};
        }
    }
    return {};
}

} // namespace

ConnectionSettings::Encryption ConnectionSettings::encryptionOf(ConnectionOptions const& options) {
    if (!options.tls) {
        return Encryption::NONE;
    }
    return options.tls->preSharedKey ? Encryption::PRE_SHARED_KEY : Encryption::CERTIFICATES;
}

Error ConnectionSettings::set(ConnectionOptions const& options) {
    auto const encryption = encryptionOf(options);
    bool const isPossible = encryption_ == Encryption::NONE || encryption_ == encryption;
    if (!isPossible || !areValid(options)) {
        return Error::INVALID_PARAMETER;
    }
    // A client without options does not need the memory. One that had some has to take them back.
    if (options_ || options.credentials || options.credentialsFunction || options.tls) {
        options_ = std::make_unique<ConnectionOptions const>(options);
    }
    encryption_ = encryption;
    libraryHasTls_ = false;
    return Error::SUCCESS;
}

Failure ConnectionSettings::prepare(mosqpp::mosquittopp& library) noexcept {
    try {
        if (!options_) {
            return {};
        }
        auto failure = giveTls(library);
        return failure.reason == Reason::NONE ? giveCredentials(library) : failure;
    } catch (...) {
        return {Reason::OTHER, 0, {}, "no memory"}; // the text takes none
    }
}

Failure ConnectionSettings::giveCredentials(mosqpp::mosquittopp& library) const {
    auto credentials = options_->credentials;
    if (options_->credentialsFunction) {
        try {
            credentials = options_->credentialsFunction();
        } catch (...) {
            return {Reason::CREDENTIALS_FUNCTION, 0, {}, "it threw an exception"};
        }
        if (!areValid(*credentials)) {
            return {Reason::CREDENTIALS_FUNCTION, 0, {}, "MQTT cannot carry its result"};
        }
    }
    int const result = credentials ? library.username_pw_set(credentials->userName.c_str(),
                                                             credentials->password.c_str())
                                   : library.username_pw_set(nullptr);
    return result == OK ? Failure{} : Failure{Reason::OTHER, 0, {}, mosquitto_strerror(result)};
}

/// The library reads the files itself when it connects, so it gets their names only once; it never
/// frees the texts of some of these calls.
Failure ConnectionSettings::giveTls(mosqpp::mosquittopp& library) {
    if (!options_->tls) {
        return {};
    }
    auto const& tls = *options_->tls;
    if (auto failure = checkFiles(tls); !tls.preSharedKey && failure.reason != Reason::NONE) {
        return failure;
    }
    if (libraryHasTls_) {
        return {};
    }
    int result = tls.preSharedKey ? library.tls_psk_set(tls.preSharedKey->key.c_str(),
                                                        tls.preSharedKey->identity.c_str())
                                  : giveCertificates(library);
    // Not again with the same version: the library never frees the last text.
    if (result == OK && librarysVersion_ != tls.minimumVersion) {
        constexpr int verifyTheBroker = 1;
        result = library.tls_opts_set(
            verifyTheBroker, tls.minimumVersion == Tls::Version::TLS_1_3 ? "tlsv1.3" : "tlsv1.2");
        if (result == OK) {
            librarysVersion_ = tls.minimumVersion;
        }
    }
    libraryHasTls_ = result == OK;
    return result == OK ? Failure{} : Failure{Reason::TLS_OTHER, 0, {}, mosquitto_strerror(result)};
}

int ConnectionSettings::giveCertificates(mosqpp::mosquittopp& library) const {
    auto const& tls = *options_->tls;
    // Always with the callback: without one, OpenSSL asks for the password on the terminal.
    int const result =
        library.tls_set(orNull(tls.caFile), orNull(caFolder(tls)), orNull(tls.certificateFile),
                        orNull(tls.keyFile), keyPassword_);
    return result == OK ? library.tls_insecure_set(tls.insecureSkipHostNameCheck) : result;
}

int ConnectionSettings::writeKeyPassword(char* buffer, int size) const noexcept {
    constexpr int failed = -1;
    try {
        if (!options_->tls->keyPassword || size < 0) {
            return failed;
        }
        auto const password = options_->tls->keyPassword();
        if (password.size() > static_cast<std::size_t>(size)) {
            return failed;
        }
        std::copy(password.begin(), password.end(), buffer);
        return static_cast<int>(password.size());
    } catch (...) {
        return failed;
    }
}

} // namespace mqtt
