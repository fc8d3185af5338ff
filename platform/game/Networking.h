// Message codes and the lead byte shared by the client and the server.
#pragma once

#include <cstdint>

// Opens the TCP hello and every datagram that the client sends.
inline constexpr uint8_t LEAD_BYTE = 0x07;

namespace networking {

// The magic of the hello and of every datagram from the server.
inline constexpr char MAGIC[8] = {'T', 'O', 'V', 'R', 'A', 'N', 'E', '!'};
inline constexpr uint32_t HELLO_VERSION = 1;
inline constexpr uint16_t NETWORKING_VERSION = 1;

inline constexpr uint8_t MSG_DISCONNECT = 0x02;
inline constexpr uint8_t MSG_KEEPALIVE = 0x03;
inline constexpr uint8_t MSG_WORLD = 0x04;
inline constexpr uint8_t MSG_ADMIN_STATUS = 0x05;
inline constexpr uint8_t MSG_PSWD = 0x06;
inline constexpr uint8_t MSG_ENTITY_CREATE = 0x40;
inline constexpr uint8_t MSG_ENTITY_DESTROY = 0x41;
inline constexpr uint8_t MSG_ENTITY_UPDATE = 0x42;
inline constexpr uint8_t MSG_ENTITY_ACTION = 0x43;
inline constexpr uint8_t MSG_TRANSFORMS = 0x44;
inline constexpr uint8_t MSG_PHYSICS = 0x45;
inline constexpr uint8_t MSG_ENTITY_MOVE = 0x46;
inline constexpr uint8_t MSG_FOR_MODULE = 0x7F;

}  // namespace networking
