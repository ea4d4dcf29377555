// Ownership of a KmParams record's arrays.
#ifndef MARSHAL_KM_PARAMS_OWNER_H
#define MARSHAL_KM_PARAMS_OWNER_H

#include "keymaster_ts.h"

namespace km41 {

struct KmParamsOwner {
  KmParamsOwner() = default;
  ~KmParamsOwner() { FreeKmParams(&record); }
  KmParamsOwner(const KmParamsOwner&) = delete;
  KmParamsOwner& operator=(const KmParamsOwner&) = delete;

  KmParams record = {};
};

}  // namespace km41

#endif  // MARSHAL_KM_PARAMS_OWNER_H
