// QXUDIFResources.h - the resources of an image: block tables, the licence
// agreement and the rest, from the XML property list or the legacy resource
// fork (older images, and newer ones that carry both).
//
// Both sources give the same thing: per resource type, the resources in the
// order stored, each with its ID, name and bytes. Block tables are numbered
// by that order, so it is kept exactly.
#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

namespace QXUDIF {

struct Resource {
    std::int64_t id = 0;
    std::string name;
    std::uint16_t attributes = 0;  // kept for writing; readers have no use for it
    std::vector<std::uint8_t> data;
};

class Resources {
public:
    /// From the property list's "resource-fork" dictionary; nothing and the
    /// reason when the bytes are no property list of that shape.
    static std::optional<Resources> fromXML(const std::uint8_t* bytes, std::size_t length, std::string* reason);
    /// From a classic resource fork (header, data area, map); nothing and the
    /// reason when an offset or count lies.
    static std::optional<Resources> fromResourceFork(const std::uint8_t* bytes, std::size_t length,
                                                     std::string* reason);

    /// The resources of a four-character type, in stored order (empty when none).
    const std::vector<Resource>& ofType(const std::string& type) const;
    /// The resource of that type and ID, or null.
    const Resource* find(const std::string& type, std::int64_t id) const;
    bool hasType(const std::string& type) const { return !ofType(type).empty(); }

    /// Appends a resource to its type's list.
    void add(const std::string& type, Resource resource) { byType_[type].push_back(std::move(resource)); }
    /// The XML property list fromXML reads: a "resource-fork" dictionary of
    /// the types, each an array of {Attributes, Data, ID, Name}.
    std::vector<std::uint8_t> toXML() const;

private:
    std::map<std::string, std::vector<Resource>> byType_;
};

} // namespace QXUDIF
