#pragma once

#include <typeinfo>

namespace QUtils {

/// Whether typeid and dynamic_cast may be used on a caller's object. A class that was compiled without
/// run-time type information has a null entry in front of its virtual functions (Itanium C++ ABI, 2.5.2),
/// which both would follow. Renderers are built that way.
template <typename Interface> bool hasTypeInformation(const Interface& object)
{
    const void* const* const functions = *reinterpret_cast<const void* const* const*>(&object);
    return functions[-1] != nullptr;
}

/// Whether the object is a `Class` itself, not one derived from it.
template <typename Class, typename Interface> bool isExactly(const Interface& object)
{
    return hasTypeInformation(object) && typeid(object) == typeid(Class);
}

} // namespace QUtils
