// MDSubSystemSetting: binds the one-key store operations to the file of subsystem settings.
//
// The rule: the operations of the family are compiled here for this store, and only here.
#include "zonmdfile/MDSubSystemSetting.h"

#include "stores/one_key_store_impl.h"

const char* const MDSubSystemSetting::FILENAME = "zonsubsystemsetting";

template <>
inline constexpr const char* zon::NAME<MDSubSystemSetting> = "MDSubSystemSetting";

template class OneKeyStore<MDSubSystemSetting>;
