// QXUDIFResources.cpp - resources from the XML property list or a resource fork.
#include "Internal/QXUDIFResources.h"

#include "Internal/QXUDIFTrailer.h"

#include <QXFoundation/QXPropertyListSerialization.h>

#include <qx/Array.h>
#include <qx/Data.h>
#include <qx/Dictionary.h>
#include <qx/Number.h>
#include <qx/String.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>

namespace QXUDIF {

namespace {

// IDs are decimal strings in the property list; some writers use integers.
std::optional<std::int64_t> resourceID(const qx::Ref<qx::Object>& value) {
    if (auto number = qx::dyn_cast<qx::Number>(value)) return number->int64Value();
    auto text = qx::dyn_cast<qx::String>(value);
    if (!text || text->utf8().empty()) return std::nullopt;
    errno = 0;
    char* end = nullptr;
    const long long id = std::strtoll(text->utf8().c_str(), &end, 10);
    if (errno != 0 || *end != '\0') return std::nullopt;
    return id;
}

} // namespace

std::optional<Resources> Resources::fromXML(const std::uint8_t* bytes, std::size_t length, std::string* reason) {
    auto fail = [reason](const char* text) {
        *reason = text;
        return std::nullopt;
    };
    qx::Ref<qx::Error> error;
    auto plist = QXPropertyListSerialization::propertyListWithData(qx::Data::withBytes(bytes, length), nullptr, &error);
    auto root = qx::dyn_cast<qx::Dictionary>(plist);
    if (!root) return fail("unreadable property list");
    auto fork = root->get<qx::Dictionary>("resource-fork");
    if (!fork) return fail("property list has no resource-fork dictionary");

    Resources resources;
    for (const auto& entry : *fork) {
        auto type = qx::dyn_cast<qx::String>(entry.first);
        auto list = qx::dyn_cast<qx::Array>(entry.second);
        if (!type || !list) return fail("malformed resource list");
        auto& out = resources.byType_[type->utf8()];
        for (const auto& item : *list) {
            auto resource = qx::dyn_cast<qx::Dictionary>(item);
            if (!resource) return fail("malformed resource");
            auto data = resource->get<qx::Data>("Data");
            const auto id = resourceID(resource->objectForKey("ID"));
            if (!data || !id) return fail("resource without data or ID");
            Resource r;
            r.id = *id;
            if (auto name = resource->get<qx::String>("Name")) r.name = name->utf8();
            else if (auto cfName = resource->get<qx::String>("CFName")) r.name = cfName->utf8();
            r.data = data->vector();
            out.push_back(std::move(r));
        }
    }
    return resources;
}

std::optional<Resources> Resources::fromResourceFork(const std::uint8_t* p, std::size_t length, std::string* reason) {
    auto fail = [reason](const char* text) {
        *reason = text;
        return std::nullopt;
    };
    if (length < 16) return fail("resource fork too short");
    const std::uint32_t dataOffset = be32(p);
    const std::uint32_t mapOffset = be32(p + 4);
    const std::uint32_t dataLength = be32(p + 8);
    const std::uint32_t mapLength = be32(p + 12);
    if (!rangeWithin(dataOffset, dataLength, length) || !rangeWithin(mapOffset, mapLength, length) || mapLength < 28)
        return fail("resource fork areas lie outside it");
    const std::uint8_t* map = p + mapOffset;
    const std::uint16_t typeListOffset = be16(map + 24);
    const std::uint16_t nameListOffset = be16(map + 26);
    if (std::uint32_t{typeListOffset} + 2 > mapLength) return fail("resource type list lies outside the map");
    const std::uint8_t* typeList = map + typeListOffset;
    const std::size_t typeListRoom = mapLength - typeListOffset;
    // The count is stored minus one; 0xFFFF means an empty list.
    const std::size_t typeCount = (be16(typeList) + 1u) & 0xFFFFu;
    if (typeCount > (typeListRoom - 2) / 8) return fail("resource type count exceeds the map");

    Resources resources;
    for (std::size_t t = 0; t < typeCount; ++t) {
        const std::uint8_t* entry = typeList + 2 + t * 8;
        const std::string type(reinterpret_cast<const char*>(entry), 4);
        const std::size_t count = be16(entry + 4) + 1u;
        const std::size_t refOffset = be16(entry + 6);
        if (refOffset > typeListRoom || count > (typeListRoom - refOffset) / 12)
            return fail("resource references lie outside the map");
        auto& out = resources.byType_[type];
        for (std::size_t r = 0; r < count; ++r) {
            const std::uint8_t* ref = typeList + refOffset + r * 12;
            Resource resource;
            resource.id = static_cast<std::int16_t>(be16(ref));
            const std::uint16_t nameOffset = be16(ref + 2);
            const std::uint32_t at = be32(ref + 4) & 0x00FFFFFFu;
            if (!rangeWithin(at, 4, dataLength)) return fail("resource data lies outside the fork");
            const std::uint32_t size = be32(p + dataOffset + at);
            if (!rangeWithin(at + 4ull, size, dataLength)) return fail("resource data lies outside the fork");
            const std::uint8_t* bytes = p + dataOffset + at + 4;
            resource.data.assign(bytes, bytes + size);
            if (nameOffset != 0xFFFF) {
                const std::uint64_t nameAt = std::uint64_t{nameListOffset} + nameOffset;
                if (nameAt >= mapLength || map[nameAt] > mapLength - nameAt - 1)
                    return fail("resource name lies outside the map");
                resource.name.assign(reinterpret_cast<const char*>(map + nameAt + 1), map[nameAt]);
            }
            out.push_back(std::move(resource));
        }
    }
    return resources;
}

std::vector<std::uint8_t> Resources::toXML() const {
    auto fork = qx::Dictionary::create();
    for (const auto& entry : byType_) {
        auto list = qx::Array::create();
        for (const auto& resource : entry.second) {
            char attributes[8];
            std::snprintf(attributes, sizeof attributes, "0x%04X", unsigned{resource.attributes});
            auto item = qx::Dictionary::create();
            item->setObject(qx::String::create(attributes), "Attributes");
            item->setObject(qx::Data::withBytes(resource.data.data(), resource.data.size()), "Data");
            item->setObject(qx::String::create(std::to_string(resource.id)), "ID");
            item->setObject(qx::String::create(resource.name), "Name");
            list->addObject(item);
        }
        fork->setObject(list, entry.first);
    }
    auto root = qx::Dictionary::create();
    root->setObject(fork, "resource-fork");
    // Only strings, data, arrays and dictionaries: the XML writer cannot refuse them.
    auto data = QXPropertyListSerialization::dataWithPropertyList(root, QXPropertyListXMLFormat_v1_0, nullptr);
    return data ? data->vector() : std::vector<std::uint8_t>();
}

const std::vector<Resource>& Resources::ofType(const std::string& type) const {
    static const std::vector<Resource> none;
    const auto found = byType_.find(type);
    return found == byType_.end() ? none : found->second;
}

const Resource* Resources::find(const std::string& type, std::int64_t id) const {
    for (const auto& resource : ofType(type))
        if (resource.id == id) return &resource;
    return nullptr;
}

} // namespace QXUDIF
