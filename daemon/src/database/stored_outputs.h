#pragma once
// The output bytes a store keeps for a result, the same in every store: as
// received, or decoded when the result says its outputs are base64
// (encoding 1). Text marked base64 that is not is kept as received, with a
// warning, so that nothing a provider sent is lost.

#include <string>
#include <string_view>

#include "daemon/src/provider/result.h"

struct stored_outputs {
  std::string_view out;
  std::string_view err;
  // What out and err point into when decoded.
  std::string decoded_out;
  std::string decoded_err;
};

// Fills `outputs` for `record`; they point into the record unless decoded.
void outputs_to_store(const result_view& record, stored_outputs* outputs);
