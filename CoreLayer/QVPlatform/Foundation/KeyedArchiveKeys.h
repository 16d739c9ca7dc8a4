// The reserved keys and class names of our keyed-archive layout (docs/archive-format.md), shared
// by the archiver and the unarchiver. Every reserved key begins with "$"; objects' own keys don't.
#pragma once

namespace qv::archive_keys {

inline constexpr const char* kArchiver = "$archiver";
inline constexpr const char* kVersion = "$version";
inline constexpr const char* kRoot = "$root";
inline constexpr const char* kClass = "$class";
inline constexpr const char* kObjects = "$objects";
inline constexpr const char* kSetClass = "NSSet";
inline constexpr const char* kArrayClass = "NSArray";

}  // namespace qv::archive_keys
