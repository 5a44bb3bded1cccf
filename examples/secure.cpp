// A connection with TLS: the broker proves who it is, and so does this program. The folder has the
// certificate of the authority, ca.crt, and this program's, secure.crt, with its key, secure.key.
//
// Usage: secure HOST PORT FOLDER

#include <mqtt/client.hpp>
#include <mqtt/connection_options.hpp>

#include <iostream>
#include <string>

int main(int argc, char* argv[]) {
    if (argc != 4) {
        std::cerr << "usage: secure HOST PORT FOLDER\n";
        return 2;
    }
    std::string const folder = argv[3];
    mqtt::ConnectionOptions options;
    auto& tls = options.tls.emplace();
    tls.caFile = folder + "/ca.crt"; // without it: the authorities of the system
    tls.certificateFile = folder + "/secure.crt";
    tls.keyFile = folder + "/secure.key";
    // A broker may want a password in place of a certificate, or both:
    // options.credentials = mqtt::Credentials{"user", "password"};

    mqtt::MqttClient client(zym::common::Uuid(16), false, "", argv[1], std::stoi(argv[2]), false,
                            options);
    auto const result = client.connect("", -1, mqtt::MqttClient::COMMUNICATION_DELAY);
    if (result != mqtt::MqttClient::Error::SUCCESS) {
        // The failure says what is wrong: the certificate, the host's name, the password, ...
        std::cerr << "cannot connect: " << result << '\n' << client.lastFailure() << '\n';
        return 1;
    }
    std::cout << "connected with TLS" << std::endl;
    client.disconnect(mqtt::MqttClient::COMMUNICATION_DELAY);
}
