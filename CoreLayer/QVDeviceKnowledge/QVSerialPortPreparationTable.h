// Which sticks the serial port enabler switches into modem mode, and how: constant data in the
// enabler's subscription order, readable from any thread.
#pragma once

#include <cstdint>
#include <span>

// What the enabler does with a stick once its driver CD is mounted.
enum class QVSerialPortPreparation : std::uint8_t {
    // The disk utility ejects the CD (and the secondary disk when the host asks for it).
    kEjectDriverDisk,
    // As above; a stick that still shows no TTY port afterwards is re-enumerated on the bus.
    kEjectDriverDiskThenReEnumerateIfPortless,
    // The quick-start mode-switch tool (CardPrepTool) switches it; no disk utility.
    kQuickStartSwitch,
};

struct SerialPortPreparationMatch {
    std::uint32_t vendorID;
    std::uint32_t productID;
    QVSerialPortPreparation preparation;
};

struct QVSerialPortPreparationTable {
    // Every row, in subscription order.
    static std::span<const SerialPortPreparationMatch> rows();
    // The row of that pair, null when the enabler does not look after it.
    static const SerialPortPreparationMatch* rowForVendorID(std::uint32_t vendorID,
                                                            std::uint32_t productID);
};
