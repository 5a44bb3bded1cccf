#pragma once

#include "mqtt/test/temp_dir.hpp"

#include <string>

/// Certificates, keys and passwords for a broker and its clients, in a folder of their own.
///
/// `ca` and `other` are authorities. Of the broker, all signed by `ca`: `server`; `elsewhere`, for
/// another host; `expired`. Of clients: `client`, and `stranger`, signed by `other`.
class Certificates {
public:
    static constexpr char const* USER = "device";
    static constexpr char const* PASSWORD = "PASSWORD-73";
    static constexpr char const* KEY_PASSWORD = "KEYPASSWORD-74";
    static constexpr char const* SHARED_KEY = "75decade";

    /// @throws std::runtime_error with the output of the command that failed
    Certificates();

    std::string certificate(std::string const& name) const { return files_.file(name + ".crt"); }
    std::string key(std::string const& name) const { return files_.file(name + ".key"); }
    /// The key of `client`, with `KEY_PASSWORD`.
    std::string encryptedKey() const { return files_.file("encrypted.key"); }
    /// A file that is no certificate and no key.
    std::string garbage() const { return files_.file("garbage"); }
    /// A folder with the certificate of `ca`.
    std::string caFolder() const { return files_.file("authorities"); }
    /// The broker's password file and its pre-shared keys, for `USER`.
    std::string passwords() const { return files_.file("passwords"); }
    std::string sharedKeys() const { return files_.file("shared-keys"); }
    std::string file(std::string const& name) const { return files_.file(name); }

private:
    void run(std::string const& command) const;
    void makeAuthority(std::string const& name) const;
    void issue(std::string const& name, std::string const& authority, std::string const& host,
               std::string const& validity) const;

    mqtt::test::TempDir files_;
};
