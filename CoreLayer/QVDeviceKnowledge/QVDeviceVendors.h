// The USB vendor IDs that framework code (not only table rows) has to name: makers with a
// generic device family, and makers whose sticks get a preparation of their own.
#pragma once

#include <cstdint>

inline constexpr std::uint32_t kOptionVendorID = 0x0AF0;
inline constexpr std::uint32_t kHuaweiVendorID = 0x12D1;
inline constexpr std::uint32_t kSierraVendorID = 0x1199;
inline constexpr std::uint32_t kZTEVendorID = 0x19D2;
