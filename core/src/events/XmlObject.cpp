// Which attributes of a record have a value.
//
// Tested by: unit/core/events/AgentEventTest.cpp.

#include <VelCore/XmlObject.h>

#include <algorithm>

namespace VelCore {

std::ptrdiff_t XMLObject::PlaceOf(const void* attribute) const
{
    return static_cast<const char*>(attribute) - reinterpret_cast<const char*>(this);
}

void XMLObject::SetAttributeNull(const void* attribute, bool isNull)
{
    const std::ptrdiff_t place = PlaceOf(attribute);
    m_present.erase(std::remove(m_present.begin(), m_present.end(), place), m_present.end());
    if (!isNull)
        m_present.push_back(place);
}

bool XMLObject::AttributeIsNull(const void* attribute) const
{
    return std::find(m_present.begin(), m_present.end(), PlaceOf(attribute)) == m_present.end();
}

} // namespace VelCore
