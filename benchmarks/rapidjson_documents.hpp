#pragma once

#include "samples.hpp"

#include <mqtt/link.hpp>
#include <mqtt/payloads.hpp>
#include <mqtt/request_reply.hpp>

#include <rapidjson/document.h>
#include <rapidjson/stringbuffer.h>
#include <rapidjson/writer.h>

#include <stdexcept>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

/// The documents as a user of RapidJSON alone would write and read them: a Writer into a buffer,
/// and a Document whose members are looked up and checked.
namespace bench::rapid {

using Writer = rapidjson::Writer<rapidjson::StringBuffer>;

// visitMembers() calls `visit(key, member)` for each member of a value.

template <class Visit>
void visitMembers(conv::CommunicationStatus& value, Visit visit) {
    visit("state", value.state);
    visit("since", value.since.seconds);
}

constexpr std::pair<char const*, std::string conv::Identification::*> IDENTIFICATION[] = {
    {"uuid", &conv::Identification::uuid},
    {"manufacturer", &conv::Identification::manufacturer},
    {"model", &conv::Identification::model},
    {"serial", &conv::Identification::serial},
    {"physicalName", &conv::Identification::physicalName},
    {"name", &conv::Identification::name},
    {"interface", &conv::Identification::interface},
    {"version", &conv::Identification::version},
    {"location", &conv::Identification::location},
    {"contact", &conv::Identification::contact}};

template <class Visit>
void visitMembers(conv::Identification& value, Visit visit) {
    for (auto const& [key, member] : IDENTIFICATION) {
        visit(key, value.*member);
    }
}

template <class Visit>
void visitMembers(conv::ServiceStatus& value, Visit visit) {
    visit("operating", value.operating);
    visit("health", value.health);
}

template <class Visit>
void visitMembers(mqtt::Link& value, Visit visit) {
    visit("@id", value.id);
}

template <class Visit>
void visitMembers(mqtt::RequestReply::Reply& value, Visit visit) {
    visit("$reqId", value.requestId);
    visit("$err", value.error);
    visit("text", static_cast<Text&>(*value.data).text);
}

struct WriteMember {
    template <class Member>
    void operator()(char const* key, Member const& member) const {
        out.Key(key);
        if constexpr (std::is_same_v<Member, std::string>) {
            out.String(member.data(), static_cast<rapidjson::SizeType>(member.size()));
        } else if constexpr (std::is_floating_point_v<Member>) {
            out.Double(member);
        } else {
            out.Uint(static_cast<unsigned>(member));
        }
    }

    Writer& out;
};

inline void require(bool condition) {
    if (!condition) {
        throw std::runtime_error("RapidJSON cannot read a document");
    }
}

struct ReadMember {
    template <class Member>
    void operator()(char const* key, Member& member) const {
        auto const& value = find(key);
        if constexpr (std::is_same_v<Member, std::string>) {
            require(value.IsString());
            member.assign(value.GetString(), value.GetStringLength());
        } else if constexpr (std::is_floating_point_v<Member>) {
            require(value.IsNumber());
            member = value.GetDouble();
        } else {
            require(value.IsUint());
            member = static_cast<Member>(value.GetUint());
        }
    }

    rapidjson::Value const& find(char const* key) const {
        auto const member = object.FindMember(key);
        require(member != object.MemberEnd());
        return member->value;
    }

    rapidjson::Value const& object;
};

template <class T>
void writeObject(Writer& out, T& value) {
    out.StartObject();
    visitMembers(value, WriteMember{out});
    out.EndObject();
}

inline void writeObject(Writer& out, std::vector<mqtt::Link>& links) {
    out.StartObject();
    WriteMember{out}("members@count", links.size());
    out.Key("members");
    out.StartArray();
    for (auto& link : links) {
        writeObject(out, link);
    }
    out.EndArray();
    out.EndObject();
}

template <class T>
void readObject(rapidjson::Value const& object, T& value) {
    require(object.IsObject());
    visitMembers(value, ReadMember{object});
}

inline void readObject(rapidjson::Value const& object, std::vector<mqtt::Link>& links) {
    require(object.IsObject());
    auto const& members = ReadMember{object}.find("members");
    require(members.IsArray());
    links.clear();
    links.reserve(members.Size());
    for (auto const& member : members.GetArray()) {
        readObject(member, links.emplace_back());
    }
}

/// The buffer stays inside: the compiler optimises a buffer that is returned less well.
/// @return what `use` makes of the text
template <class T, class Use>
auto write(T& value, Use use) {
    rapidjson::StringBuffer buffer;
    Writer out(buffer);
    writeObject(out, value);
    return use(buffer);
}

/// @throws std::runtime_error when something is missing: a comparison in which one side failed
///         shows nothing
template <class T>
void read(std::string const& text, T& value) {
    rapidjson::Document document;
    require(!document.Parse(text.data(), text.size()).HasParseError());
    readObject(document, value);
}

} // namespace bench::rapid
