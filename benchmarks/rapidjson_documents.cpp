#include "rapidjson_documents.hpp"

#include "documents.hpp"

#include <rapidjson/document.h>
#include <rapidjson/stringbuffer.h>
#include <rapidjson/writer.h>

#include <array>
#include <cstdint>
#include <stdexcept>
#include <utility>

namespace bench::rapid {
namespace {

using conv::CommunicationStatus;
using conv::Identification;
using conv::ServiceStatus;
using mqtt::Link;
using mqtt::RequestReply;
using Writer = rapidjson::Writer<rapidjson::StringBuffer>;

constexpr std::array<std::pair<char const*, std::string Identification::*>, 10> IDENTIFICATION{
    {{"uuid", &Identification::uuid},
     {"manufacturer", &Identification::manufacturer},
     {"model", &Identification::model},
     {"serial", &Identification::serial},
     {"physicalName", &Identification::physicalName},
     {"name", &Identification::name},
     {"interface", &Identification::interface},
     {"version", &Identification::version},
     {"location", &Identification::location},
     {"contact", &Identification::contact}}};

template <class Members>
void object(rapidjson::StringBuffer& buffer, Members members) {
    Writer out(buffer);
    out.StartObject();
    members(out);
    out.EndObject();
}

template <class Members>
std::size_t object(Members members) {
    rapidjson::StringBuffer buffer;
    object(buffer, members);
    return buffer.GetSize();
}

template <class Members>
std::string objectText(Members members) {
    rapidjson::StringBuffer buffer;
    object(buffer, members);
    return {buffer.GetString(), buffer.GetSize()};
}

void add(Writer& out, char const* key, unsigned int number) {
    out.Key(key);
    out.Uint(number);
}

void add(Writer& out, char const* key, std::string const& text) {
    out.Key(key);
    out.String(text.data(), static_cast<rapidjson::SizeType>(text.size()));
}

void addMembers(Writer& out, CommunicationStatus const& value) {
    add(out, "state", static_cast<unsigned int>(value.state));
    out.Key("since");
    out.Double(value.since.seconds);
}

void addMembers(Writer& out, Identification const& value) {
    for (auto const& [key, field] : IDENTIFICATION) {
        add(out, key, value.*field);
    }
}

std::string& textOf(RequestReply::Request const& message) {
    return static_cast<Text&>(*message.data).text;
}

class Reader {
public:
    explicit Reader(std::string const& text) {
        require(!document_.Parse(text.data(), text.size()).HasParseError() && document_.IsObject());
    }

    rapidjson::Value const& operator[](char const* key) const {
        auto const member = document_.FindMember(key);
        require(member != document_.MemberEnd());
        return member->value;
    }

    static unsigned int number(rapidjson::Value const& value) {
        require(value.IsUint());
        return value.GetUint();
    }
    static void copy(rapidjson::Value const& value, std::string& text) {
        require(value.IsString());
        text.assign(value.GetString(), value.GetStringLength());
    }
    static void require(bool condition) {
        if (!condition) {
            throw std::runtime_error("RapidJSON cannot read a document");
        }
    }

private:
    rapidjson::Document document_;
};

} // namespace

std::size_t write(CommunicationStatus const& value) {
    return object([&](Writer& out) { addMembers(out, value); });
}

std::string text(CommunicationStatus const& value) {
    return objectText([&](Writer& out) { addMembers(out, value); });
}

std::size_t write(Identification const& value) {
    return object([&](Writer& out) { addMembers(out, value); });
}

std::string text(Identification const& value) {
    return objectText([&](Writer& out) { addMembers(out, value); });
}

std::size_t write(ServiceStatus const& value) {
    return object([&](Writer& out) {
        add(out, "operating", value.operating);
        add(out, "health", value.health);
    });
}

std::size_t write(Link const& value) {
    return object([&](Writer& out) { add(out, "@id", value.id); });
}

std::size_t write(std::vector<Link> const& value) {
    return object([&](Writer& out) {
        add(out, "members@count", static_cast<unsigned int>(value.size()));
        out.Key("members");
        out.StartArray();
        for (Link const& link : value) {
            out.StartObject();
            add(out, "@id", link.id);
            out.EndObject();
        }
        out.EndArray();
    });
}

std::size_t write(RequestReply::Request const& value) {
    return object([&](Writer& out) {
        add(out, "$reqId", value.requestId);
        add(out, "text", textOf(value));
    });
}

std::size_t write(RequestReply::Reply const& value) {
    return object([&](Writer& out) {
        add(out, "$reqId", value.requestId);
        add(out, "$err", static_cast<unsigned int>(value.error));
        add(out, "text", textOf(value));
    });
}

void read(std::string const& text, CommunicationStatus& value) {
    Reader const in(text);
    value.state = static_cast<conv::ComState>(Reader::number(in["state"]));
    Reader::require(in["since"].IsNumber());
    value.since = conv::UnixTime(in["since"].GetDouble());
}

void read(std::string const& text, Identification& value) {
    Reader const in(text);
    for (auto const& [key, field] : IDENTIFICATION) {
        Reader::copy(in[key], value.*field);
    }
}

void read(std::string const& text, ServiceStatus& value) {
    Reader const in(text);
    value.operating = static_cast<std::uint8_t>(Reader::number(in["operating"]));
    value.health = static_cast<std::uint8_t>(Reader::number(in["health"]));
}

void read(std::string const& text, Link& value) {
    Reader const in(text);
    Reader::copy(in["@id"], value.id);
}

void read(std::string const& text, std::vector<Link>& value) {
    Reader const in(text);
    auto const& members = in["members"];
    Reader::require(members.IsArray());
    value.clear();
    value.reserve(members.Size());
    for (auto const& member : members.GetArray()) {
        Reader::require(member.IsObject() && member.HasMember("@id"));
        Reader::copy(member["@id"], value.emplace_back().id);
    }
}

void read(std::string const& text, RequestReply::Request& value) {
    Reader const in(text);
    value.requestId = Reader::number(in["$reqId"]);
    Reader::copy(in["text"], textOf(value));
}

void read(std::string const& text, RequestReply::Reply& value) {
    Reader const in(text);
    value.requestId = Reader::number(in["$reqId"]);
    value.error = static_cast<RequestReply::ErrorCode>(Reader::number(in["$err"]));
    Reader::copy(in["text"], textOf(value));
}

} // namespace bench::rapid
