// What can go wrong with a request to the store of time series.
#pragma once

#include "error/exception.h"

namespace tsdb {

/// The request asks for what can't be: it is answered with the text, and nothing has changed.
class EBadRequest : public error::Exception {
  public:
    using Exception::Exception;
};

/// The storage can't do its work: no room, a broken disk, a damaged file. What has been written
/// since the last commit is lost.
class EStorage : public error::Exception {
  public:
    using Exception::Exception;
};

/// Stored bytes that can't have been written by this program.
class EDamaged : public EStorage {
  public:
    using EStorage::EStorage;
};

}  // namespace tsdb
