// The statuses of the security provider, in its numbering: negative values
// are failures, the positive ones say how a step goes on. The TLS channel
// and the login mechanisms share them.
#pragma once

#include <cstdint>

namespace kv {

inline constexpr int32_t kSecEOk = 0;
inline constexpr int32_t kSecIContinueNeeded = 0x00090312;
inline constexpr int32_t kSecICompleteNeeded = 0x00090313;
inline constexpr int32_t kSecICompleteAndContinue = 0x00090314;
inline constexpr int32_t kSecEInsufficientMemory = int32_t(0x80090300u);
inline constexpr int32_t kSecEInvalidHandle = int32_t(0x80090301u);
inline constexpr int32_t kSecEUnsupportedFunction = int32_t(0x80090302u);
inline constexpr int32_t kSecETargetUnknown = int32_t(0x80090303u);
inline constexpr int32_t kSecEInternalError = int32_t(0x80090304u);
inline constexpr int32_t kSecEInvalidToken = int32_t(0x80090308u);
inline constexpr int32_t kSecELogonDenied = int32_t(0x8009030Cu);
inline constexpr int32_t kSecEUnknownCredentials = int32_t(0x8009030Du);
inline constexpr int32_t kSecENoCredentials = int32_t(0x8009030Eu);
inline constexpr int32_t kSecEMessageAltered = int32_t(0x8009030Fu);
inline constexpr int32_t kSecEOutOfSequence = int32_t(0x80090310u);
inline constexpr int32_t kSecENoAuthenticatingAuthority = int32_t(0x80090311u);
inline constexpr int32_t kSecEContextExpired = int32_t(0x80090317u);
inline constexpr int32_t kSecEIncompleteMessage = int32_t(0x80090318u);
inline constexpr int32_t kSecEBufferTooSmall = int32_t(0x80090321u);
inline constexpr int32_t kSecEIllegalMessage = int32_t(0x80090326u);
inline constexpr int32_t kSecEAlgorithmMismatch = int32_t(0x80090331u);

}  // namespace kv
