// The bytes between qvsec-hostd and its callers (README "The host daemon"),
// and socket I/O against a deadline. Internal to qv_host_trust and the daemon.
#pragma once

#include <chrono>
#include <cstdint>
#include <span>
#include <string>
#include <vector>

#include "host_trust.h"

namespace qvhost {

inline constexpr std::size_t kMaxRequestBytes = 1024;
inline constexpr std::size_t kMaxResponseBody = 4096;
inline constexpr std::size_t kResponseHeaderBytes = 8;
inline constexpr std::size_t kMaxRefusalText = 255;
inline constexpr std::uint8_t kResponseAssertion = 0;
inline constexpr std::uint8_t kResponseRefusal = 1;

std::vector<std::uint8_t> encode_request(const AssertionRequest &req);
enum class RequestParse { kComplete, kIncomplete, kMalformed };
// Parses one request from the front of `bytes`. kIncomplete while a prefix of
// a valid request; kComplete sets *used to its length.
RequestParse parse_request(std::span<const std::uint8_t> bytes, AssertionRequest &req, std::size_t *used);

std::vector<std::uint8_t> encode_response(std::uint8_t status, std::span<const std::uint8_t> body);
// The header: status and body length; false when it is not a response header.
bool parse_response_header(std::span<const std::uint8_t, kResponseHeaderBytes> header, std::uint8_t &status,
                           std::size_t &body_len);

using Deadline = std::chrono::steady_clock::time_point;
// On a non-blocking socket: appends at least one byte to `buf`, never
// growing it beyond `max_total`. 0 or an errno code (ETIMEDOUT at the
// deadline, ECONNRESET when the peer closed).
int read_some(int fd, std::vector<std::uint8_t> &buf, std::size_t max_total, Deadline deadline);
// Reads until `buf` holds `want` bytes; 0 or an errno code as read_some.
int read_until(int fd, std::vector<std::uint8_t> &buf, std::size_t want, Deadline deadline);
// Writes all of `bytes` before the deadline; 0 or an errno code.
int write_all(int fd, std::span<const std::uint8_t> bytes, Deadline deadline);

}  // namespace qvhost
