#include "rapidjson_sax.hpp"

#include "documents.hpp"

#include <rapidjson/reader.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <stdexcept>
#include <string_view>
#include <type_traits>

namespace bench::rapid::sax {
namespace {

using mqtt::Link;
using mqtt::RequestReply;

/// What a handler knows of a type: the names of its members, and how each one is set. A member
/// that is of no use to a type is refused by these.
template <class T>
struct Members {
    bool number(std::size_t /*member*/, double /*number*/) { return false; }
    bool text(std::size_t /*member*/, std::string_view /*text*/) { return false; }

    T& value;
};

struct CommunicationMembers : Members<conv::CommunicationStatus> {
    static constexpr std::array<std::string_view, 2> NAMES{"state", "since"};

    bool number(std::size_t member, double number) {
        if (member == 0) {
            value.state = static_cast<conv::ComState>(number);
        } else {
            value.since = conv::UnixTime(number);
        }
        return true;
    }
};

struct IdentificationMembers : Members<conv::Identification> {
    static constexpr std::array<std::string_view, 10> NAMES{
        "uuid", "manufacturer", "model",   "serial",   "physicalName",
        "name", "interface",    "version", "location", "contact"};

    bool text(std::size_t member, std::string_view text) {
        constexpr std::array<std::string conv::Identification::*, NAMES.size()> FIELDS{
            &conv::Identification::uuid,         &conv::Identification::manufacturer,
            &conv::Identification::model,        &conv::Identification::serial,
            &conv::Identification::physicalName, &conv::Identification::name,
            &conv::Identification::interface,    &conv::Identification::version,
            &conv::Identification::location,     &conv::Identification::contact};
        (value.*FIELDS[member]).assign(text);
        return true;
    }
};

struct StatusMembers : Members<conv::ServiceStatus> {
    static constexpr std::array<std::string_view, 2> NAMES{"operating", "health"};

    bool number(std::size_t member, double number) {
        (member == 0 ? value.operating : value.health) = static_cast<std::uint8_t>(number);
        return true;
    }
};

struct LinkMembers : Members<Link> {
    static constexpr std::array<std::string_view, 1> NAMES{"@id"};

    bool text(std::size_t /*member*/, std::string_view text) {
        value.id.assign(text);
        return true;
    }
};

template <class T>
struct MessageMembers : Members<T> {
    static constexpr std::array<std::string_view, 3> NAMES{"text", "$reqId", "$err"};

    bool text(std::size_t member, std::string_view text) {
        static_cast<Text&>(*this->value.data).text.assign(text);
        return member == 0;
    }
    bool number(std::size_t member, double number) {
        if constexpr (std::is_same_v<T, RequestReply::Reply>) {
            if (member == 2) {
                this->value.error = static_cast<RequestReply::ErrorCode>(number);
                return true;
            }
        }
        this->value.requestId = static_cast<decltype(this->value.requestId)>(number);
        return member == 1;
    }
};

/// The members of one object, each one known.
template <class TypeMembers>
class ObjectHandler
    : public rapidjson::BaseReaderHandler<rapidjson::UTF8<>, ObjectHandler<TypeMembers>> {
public:
    explicit ObjectHandler(TypeMembers members) : members_(members) {}

    bool Key(char const* text, rapidjson::SizeType length, bool /*copy*/) {
        std::string_view const name(text, length);
        // Members come in their order as a rule.
        member_ = seen_;
        if (member_ >= NAMES.size() || NAMES[member_] != name) {
            member_ = 0;
            while (member_ < NAMES.size() && NAMES[member_] != name) {
                ++member_;
            }
        }
        ++seen_;
        return member_ < NAMES.size();
    }
    bool String(char const* text, rapidjson::SizeType length, bool /*copy*/) {
        return members_.text(member_, {text, length});
    }
    bool Uint(unsigned int number) { return members_.number(member_, number); }
    bool Double(double number) { return members_.number(member_, number); }
    bool StartObject() { return depth_++ == 0; }
    bool EndObject(rapidjson::SizeType /*count*/) { return true; }
    bool StartArray() { return false; }
    bool Default() { return false; }

    std::size_t seen() const { return seen_; }

private:
    static constexpr auto const& NAMES = TypeMembers::NAMES;

    TypeMembers members_;
    std::size_t member_ = 0;
    std::size_t seen_ = 0;
    unsigned depth_ = 0;
};

class LinksHandler : public rapidjson::BaseReaderHandler<rapidjson::UTF8<>, LinksHandler> {
public:
    explicit LinksHandler(std::vector<Link>& links) : links_(links) { links_.clear(); }

    bool Key(char const* text, rapidjson::SizeType length, bool /*copy*/) {
        std::string_view const name(text, length);
        counted_ = depth_ == 1 && name == "members@count";
        return counted_ || name == (depth_ == 1 ? "members" : "@id");
    }
    bool String(char const* text, rapidjson::SizeType length, bool /*copy*/) {
        if (depth_ == 3) {
            links_.emplace_back().id.assign(text, length);
        }
        return depth_ == 3;
    }
    bool Uint(unsigned int number) {
        constexpr unsigned REASONABLE = 1U << 16U;
        if (counted_ && number < REASONABLE) {
            links_.reserve(number);
        }
        return counted_;
    }
    bool StartObject() { return ++depth_ == 1 || depth_ == 3; }
    bool StartArray() { return ++depth_ == 2; }
    bool EndObject(rapidjson::SizeType /*count*/) { return depth_-- > 0; }
    bool EndArray(rapidjson::SizeType /*count*/) { return depth_-- > 0; }
    bool Default() { return false; }

private:
    std::vector<Link>& links_;
    unsigned depth_ = 0;
    bool counted_ = false;
};

class Nobody : public rapidjson::BaseReaderHandler<rapidjson::UTF8<>, Nobody> {
public:
    bool Default() { return true; }
};

template <class Handler>
void parse(std::string const& text, Handler& handler) {
    rapidjson::StringStream stream(text.c_str());
    if (!rapidjson::Reader().Parse(stream, handler)) {
        throw std::runtime_error("RapidJSON cannot read a document");
    }
}

template <class TypeMembers>
void readObject(std::string const& text, TypeMembers members, std::size_t expected) {
    ObjectHandler<TypeMembers> handler(members);
    parse(text, handler);
    if (handler.seen() < expected) {
        throw std::runtime_error("RapidJSON misses a member");
    }
}

} // namespace

void read(std::string const& text, conv::CommunicationStatus& value) {
    readObject(text, CommunicationMembers{{value}}, 2);
}

void read(std::string const& text, conv::Identification& value) {
    readObject(text, IdentificationMembers{{value}}, 10);
}

void read(std::string const& text, conv::ServiceStatus& value) {
    readObject(text, StatusMembers{{value}}, 2);
}

void read(std::string const& text, Link& value) {
    readObject(text, LinkMembers{{value}}, 1);
}

void read(std::string const& text, std::vector<Link>& value) {
    LinksHandler handler(value);
    parse(text, handler);
}

void read(std::string const& text, RequestReply::Request& value) {
    readObject(text, MessageMembers<RequestReply::Request>{{value}}, 2);
}

void read(std::string const& text, RequestReply::Reply& value) {
    readObject(text, MessageMembers<RequestReply::Reply>{{value}}, 3);
}

void skip(std::string const& text) {
    Nobody nobody;
    parse(text, nobody);
}

} // namespace bench::rapid::sax
