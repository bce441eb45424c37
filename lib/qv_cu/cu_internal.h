// Internal interface of libqv_cu: the message-text parser, the renderer, the
// record helpers, the catalogue cache and the node ID parser. Nothing here is
// exported; the unit tests and fuzzers link the object library to reach it.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "qv_cu.h"

namespace qvcu {

// Highest argument number a message may use. A conversion that names a
// higher one (or 0) is not a conversion: it is shown as written.
inline constexpr unsigned kMaxArgs = 128;
// Largest width or precision rendered; a catalogue text asking for more is
// shown as written rather than allowed to inflate the message.
inline constexpr int kMaxFieldWidth = 4096;

// One piece of a message text: either literal bytes or a conversion.
struct Conversion {
    std::string_view text;   // the whole conversion as written, from '%'
    bool valid = false;      // false: the '%' does not start a usable conversion
    unsigned arg = 0;        // 1-based argument number of the value
    unsigned width_arg = 0;  // argument number of a '*' width, 0 if none
    unsigned prec_arg = 0;   // argument number of a '*' precision, 0 if none
    int width = -1;          // literal width, -1 if none
    int precision = -1;      // literal precision, -1 if none
    bool minus = false, plus = false, space = false, hash = false, zero = false;
    char length[3] = {0, 0, 0};  // "", "hh", "h", "l", "ll", "j", "z", "t", "L", "q"
    char conv = 0;
};

struct Piece {
    bool literal = true;
    std::string_view text;  // literal bytes ("%%" already reduced to "%")
    Conversion conversion;  // when !literal
};

// Splits a printf-style text into pieces. Plain conversions are numbered from
// the argument after the one the previous conversion used, so positional and
// plain conversions may be mixed. Never fails: anything that is not a usable
// conversion is returned with valid == false and shown as written.
std::vector<Piece> parse_message_text(std::string_view text);

// The C type that a caller passes for one argument, as the default text's
// conversion names it.
enum class VaType : uint8_t {
    None,  // no conversion uses this argument number
    Int, UInt, Long, ULong, LongLong, ULongLong, IntMax, UIntMax, Size, PtrDiff,
    Double, String, Pointer,
    Unusable  // %n, %Lf, %ls, conflicting uses: the caller's type is unknown
};

// The C type that conversion c reads (Unusable when its length modifier does
// not fit its conversion character, or for %n).
VaType va_type_of(const Conversion &c);

// The types of arguments 1..n that can be read safely from a default text:
// reading stops before the first argument whose type is unknown (unused
// number, unsupported or conflicting conversion, or a malformed conversion
// after which the plain numbering cannot be trusted).
std::vector<VaType> argument_types(std::string_view default_text);

// The cu_arg_t type under which a value read as t is kept.
cu_arg_type_t record_type(VaType t);

// Renders text with the record's arguments. A conversion whose argument is
// missing, or whose type the argument does not have, is rendered safely (see
// message_renderer.cpp). Throws std::bad_alloc only.
std::string render_message(std::string_view text, std::span<const cu_arg_t> args);

// Deep copy of a record with malloc'ed strings; NULL when memory runs out.
cu_error_t *copy_record(const cu_error_t *src);
// Frees a record and everything it owns (NULL is fine).
void free_record(cu_error_t *rec);

// The catalogue's text for (set, number) of the named catalogue, or nullopt.
// Opened catalogues stay open for the life of the process.
std::optional<std::string> catalogue_text(const char *catalogue, int set, int number);

// Parses the contents of a node ID file: 16 hexadecimal digits, optionally
// surrounded by whitespace. Returns 0, or CU_E_BADFORMAT.
int parse_node_id(std::string_view contents, uint64_t *id);

// Node ID from the given sources, in order: the file named by env_file (when
// non-empty), default_file, then the machine-id file. Used by
// cu_get_node_id_1 and by the tests with their own files.
int node_id_from(const char *env_file, const char *default_file,
                 const char *machine_id_file, uint64_t *id);

}  // namespace qvcu
