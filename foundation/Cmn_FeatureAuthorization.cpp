#include <trel/Cmn_FeatureAuthorization.h>
#include <trel/Cmn_NumberToText.h>
#include <trel/SPSStartupOption.h>

bool Cmn_FeatureAuthorization::IsAuthorized(std::int32_t feature) {
  if (feature < 1 || feature > kNumberFeatures) {
    return false;
  }
  const std::string option = "FeatureAuthorized" + Cmn_Int32ToString(feature);
  return SPSStartupOptionSInt32(option.c_str(), 1) != 0;
}
