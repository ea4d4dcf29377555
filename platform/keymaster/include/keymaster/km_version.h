// The keymaster generations that a HAL service can serve.
#ifndef KEYMASTER_KM_VERSION_H
#define KEYMASTER_KM_VERSION_H

namespace keymaster {

enum class KmVersion {
  KEYMASTER_1 = 10,
  KEYMASTER_1_1 = 11,
  KEYMASTER_2 = 20,
  KEYMASTER_3 = 30,
  KEYMASTER_4 = 40,
  KEYMASTER_4_1 = 41,
};

}  // namespace keymaster

#endif  // KEYMASTER_KM_VERSION_H
