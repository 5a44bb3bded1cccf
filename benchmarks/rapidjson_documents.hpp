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

template <class Visit>
void visitMembers(conv::Identification& value, Visit visit) {
    visit("uuid", value.uuid);
    visit("manufacturer", value.manufacturer);
    visit("model", value.model);
    visit("serial", value.serial);
    visit("physicalName", value.physicalName);
    visit("name", value.name);
    visit("interface", value.interface);
    visit("version", value.version);
    visit("location", value.location);
    visit("contact", value.contact);
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

inline void require(bool condition) {
    if (!condition) {
        throw std::runtime_error("RapidJSON cannot read a document");
    }
}

inline rapidjson::Value const& find(rapidjson::Value const& object, char const* key) {
    auto const member = object.FindMember(key);
    require(member != object.MemberEnd());
    return member->value;
}

template <class T>
void writeValue(Writer& out, T& value) {
    if constexpr (std::is_same_v<T, std::string>) {
        out.String(value.data(), static_cast<rapidjson::SizeType>(value.size()));
    } else if constexpr (std::is_floating_point_v<T>) {
        out.Double(value);
    } else if constexpr (std::is_class_v<T>) {
        out.StartObject();
        visitMembers(value, [&](char const* key, auto& member) {
            out.Key(key);
            writeValue(out, member);
        });
        out.EndObject();
    } else {
        out.Uint(static_cast<unsigned>(value));
    }
}

inline void writeValue(Writer& out, std::vector<mqtt::Link>& links) {
    out.StartObject();
    out.Key("members@count");
    out.Uint64(links.size());
    out.Key("members");
    out.StartArray();
    for (auto& link : links) {
        writeValue(out, link);
    }
    out.EndArray();
    out.EndObject();
}

template <class T>
void readValue(rapidjson::Value const& json, T& value) {
    if constexpr (std::is_same_v<T, std::string>) {
        require(json.IsString());
        value.assign(json.GetString(), json.GetStringLength());
    } else if constexpr (std::is_floating_point_v<T>) {
        require(json.IsNumber());
        value = json.GetDouble();
    } else if constexpr (std::is_class_v<T>) {
        require(json.IsObject());
        visitMembers(value,
                     [&](char const* key, auto& member) { readValue(find(json, key), member); });
    } else {
        require(json.IsUint());
        value = static_cast<T>(json.GetUint());
    }
}

inline void readValue(rapidjson::Value const& json, std::vector<mqtt::Link>& links) {
    require(json.IsObject());
    auto const& members = find(json, "members");
    require(members.IsArray());
    links.clear();
    links.reserve(members.Size());
    for (auto const& member : members.GetArray()) {
        readValue(member, links.emplace_back());
    }
}

/// The buffer stays inside: the compiler optimises a buffer that is returned less well.
/// @return what `use` makes of the text
template <class T, class Use>
auto write(T& value, Use use) {
    rapidjson::StringBuffer buffer;
    Writer out(buffer);
    writeValue(out, value);
    return use(buffer);
}

/// @throws std::runtime_error when something is missing: a comparison in which one side failed
///         shows nothing
template <class T>
void read(std::string const& text, T& value) {
    rapidjson::Document document;
    require(!document.Parse(text.data(), text.size()).HasParseError());
    readValue(document, value);
}

} // namespace bench::rapid
