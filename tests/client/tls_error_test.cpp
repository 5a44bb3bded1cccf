#include "client/tls_error.hpp"

#include <gtest/gtest.h>

#include <utility>

namespace mqtt {
namespace {

using Reason = Failure::Reason;

TEST(ATlsError, HasTheReasonOfTheTextThatTheBrokerLibraryLogs) {
    for (auto const& [text, reason] : {
             std::pair("Client abc sending CONNECT", Reason::NONE),
             std::pair("Warning: Unable to open socket pair", Reason::NONE),
             std::pair("Error: host name verification failed.", Reason::HOST_NAME_MISMATCH),
             std::pair("Error: Unable to load client key file \"a.key\".", Reason::TLS_FILES),
             std::pair("Error: Client certificate/key are inconsistent.", Reason::TLS_FILES),
             std::pair("OpenSSL Error[0]: error:0A000086:SSL routines::certificate verify failed",
                       Reason::CERTIFICATE_NOT_TRUSTED),
             std::pair("OpenSSL Error[0]: error:1416F086:SSL "
                       "routines:tls_process_server_certificate:certificate verify failed",
                       Reason::CERTIFICATE_NOT_TRUSTED), // OpenSSL 1.1
             std::pair("OpenSSL Error[0]: error:0A00010B:SSL routines::wrong version number",
                       Reason::NO_TLS_AT_BROKER),
             std::pair("OpenSSL Error[0]: error:0A000126:SSL routines::unexpected eof while "
                       "reading",
                       Reason::CLOSED_BEFORE_ACCEPTANCE),
             std::pair("OpenSSL Error[0]: error:0A000102:SSL routines::unsupported protocol",
                       Reason::TLS_VERSION),
             std::pair("OpenSSL Error[0]: error:0A00042E:SSL routines::tlsv1 alert protocol "
                       "version",
                       Reason::TLS_VERSION),
             std::pair("OpenSSL Error[0]: error:0A00045C:SSL routines::tlsv13 alert certificate "
                       "required",
                       Reason::TLS_CLIENT_REFUSED),
             std::pair("OpenSSL Error[0]: error:0A000418:SSL routines::tlsv1 alert unknown ca",
                       Reason::TLS_CLIENT_REFUSED),
             std::pair("OpenSSL Error[0]: error:0A0000C1:SSL routines::no shared cipher",
                       Reason::TLS_OTHER),
             std::pair("OpenSSL Error[0]: error:05800074:x509 certificate routines::key values "
                       "mismatch",
                       Reason::TLS_OTHER),
         }) {
        EXPECT_EQ(tlsReason(text), reason) << text;
    }
}

} // namespace
} // namespace mqtt
