// What a failure of a call says about the server. The client hands the server's error on as a text,
// so its kind can only be read from that; this is the one place that does.
#pragma once

#include "common/status.h"

namespace kandb::tools {

enum class RemoteFailure {
  kNone,               // success, or the server did not answer
  kNotBootstrapped,    // a lookup: there is no region
  kNoRegionCoversKey,  // a lookup: no region's range contains the key
  kOther               // the server answered with some other error
};

// Of the result of a call of PdClient. A caller may have put words of its own, which end with ": ",
// before the text.
RemoteFailure RemoteFailureOf(const Status& status);

// Whether the call failed because there was no connection, or because it ended or stood still
// before the answer: the server may or may not have carried it out. Not when there was an answer,
// even one that could not be read.
bool IsUnanswered(const Status& status);

}  // namespace kandb::tools
