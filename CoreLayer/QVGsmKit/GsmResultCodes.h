// The modem library's result codes: a command's error() and the first argument of every listener.
// The application acts on 7 (success), 11, 12 and 18 (initialisation errors), 19 (network
// information failed) and 20 (the library asks the application to quit); what each of ours means:
#pragma once

#include <cstdint>

inline constexpr std::int32_t kGsmResultSuccess = 7;
// The port could not be opened: no such port, or no modem behind it.
inline constexpr std::int32_t kGsmErrorPortUnavailable = 11;
// The modem did not answer the command in time.
inline constexpr std::int32_t kGsmErrorNoResponse = 12;
// The modem refused a command of the initialisation script.
inline constexpr std::int32_t kGsmErrorCommandRefused = 18;
// The network information could not be read (no registration, no signal report).
inline constexpr std::int32_t kGsmErrorNetworkInfo = 19;
// The modem is in a state only a restart of the application clears.
inline constexpr std::int32_t kGsmErrorApplicationMustQuit = 20;

// What a command's error() reads before it has been executed.
inline constexpr std::int32_t kGsmErrorNotExecuted = -1;

// The modem answered who it is, but no row of the model table names that maker and model.
inline constexpr std::int32_t kGsmErrorUnknownModel = 21;
