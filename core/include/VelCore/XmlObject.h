// XmlObject.h: a record whose attributes may be absent.
#pragma once

#include <cstddef>
#include <vector>

namespace VelCore {

/// Base of records with attributes, the data members of the deriving class. It knows which of them have a value; at
/// first none has.
///
/// Ownership: a plain value; a copy knows the same of its own attributes.
/// Threads:   one at a time.
class XMLObject
{
public:
    virtual ~XMLObject() = default;

    /// Records whether an attribute is absent (true) or has a value (false).
    ///
    /// attribute  the address of a data member of this object
    void SetAttributeNull(const void* attribute, bool isNull);

    bool AttributeIsNull(const void* attribute) const;

protected:
    XMLObject() = default;
    XMLObject(const XMLObject&) = default;
    XMLObject& operator=(const XMLObject&) = default;

private:
    std::ptrdiff_t PlaceOf(const void* attribute) const;

    std::vector<std::ptrdiff_t> m_present; // distances from this object, so that they hold for copies as well
};

} // namespace VelCore
