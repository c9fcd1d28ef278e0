// The exceptions of the store. Each carries one text. error_nullprop and error_nomatch are met on
// ordinary paths; the others tell of a damaged file, a failed disk or a fault in the server.
#pragma once

#include <cstdint>

#include "error/exception.h"

namespace mdb {

/// Base of all exceptions of the store.
class error_generic : public error::Exception {
  public:
    using Exception::Exception;
};

/// The file's content contradicts itself.
class error_consistency : public error_generic {
  public:
    using error_generic::error_generic;
};
/// Structure damaged beyond use.
class error_fubar : public error_consistency {
  public:
    using error_consistency::error_consistency;
};
/// The database needs repair.
class error_need_repair : public error_consistency {
  public:
    using error_consistency::error_consistency;
};
/// A version or type that this build doesn't take.
class error_unsupported : public error_consistency {
  public:
    using error_consistency::error_consistency;
};

/// Misuse, or an invariant broken in the server.
class error_internal : public error_generic {
  public:
    using error_generic::error_generic;
};
/// Block or position out of range.
class error_range : public error_internal {
  public:
    using error_internal::error_internal;
};

/// A file operation failed.
class error_io : public error_generic {
  public:
    using error_generic::error_generic;
};
/// A file can't be opened.
class error_open : public error_io {
  public:
    using error_io::error_io;
};
/// Positioning in a file failed.
class error_seek : public error_io {
  public:
    using error_io::error_io;
};

/// The open transaction has outgrown the journal; the caller aborts it.
class error_transact : public error_generic {
  public:
    using error_generic::error_generic;
};
/// No space in the database.
class error_dbnospace : public error_generic {
  public:
    using error_generic::error_generic;
};
/// An object larger than a block.
class error_bigobj : public error_generic {
  public:
    using error_generic::error_generic;
};
/// A null handle was used.
class error_nullobj : public error_generic {
  public:
    using error_generic::error_generic;
};
/// An index search found nothing.
class error_nomatch : public error_generic {
  public:
    using error_generic::error_generic;
};
/// A unique index holds the key already.
class error_index_conflict : public error_generic {
  public:
    using error_generic::error_generic;
};
/// A unique index lacks the key.
class error_index_noentry : public error_generic {
  public:
    using error_generic::error_generic;
};

/// A property is absent: it has no record, or its record is null.
class error_nullprop : public error_generic {
  public:
    error_nullprop(std::string text, uint32_t property)
        : error_generic(std::move(text)), property_(property) {}
    /// Id of the property.
    [[nodiscard]] uint32_t property() const noexcept { return property_; }

  private:
    uint32_t property_;
};
/// The object has no record of the property.
class error_implicit_nullprop : public error_nullprop {
  public:
    using error_nullprop::error_nullprop;
};
/// The object holds an explicit null for the property.
class error_explicit_nullprop : public error_nullprop {
  public:
    using error_nullprop::error_nullprop;
};

/// A stored property has another type than its reader expects.
class error_wrongtype : public error_generic {
  public:
    /// What was read: property id, place of the object, type id found and type id wanted.
    struct Details {
        uint32_t property = 0;
        uint32_t block = 0;
        uint32_t offset = 0;
        uint32_t found = 0;
        uint32_t wanted = 0;
    };
    error_wrongtype(std::string text, const Details& details)
        : error_generic(std::move(text)), details_(details) {}
    [[nodiscard]] const Details& details() const noexcept { return details_; }

  private:
    Details details_;
};

}  // namespace mdb
