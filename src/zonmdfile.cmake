# libzonmdfile: record layer, stores and entry points.
zon_library(NAME zonmdfile
  SOURCES
    record/MDOneKeyReg.cpp
    record/MDStringParser.cpp
    record/MDThreeKeyReg.cpp
    record/MDTwoKeyReg.cpp
    record/key_digest.cpp
    record/record_callbacks.cpp
    record/record_file_names.cpp
    record/sqlca_mapping.cpp
    stores/MDCloningHistory.cpp
    stores/MDCloningMapping.cpp
    stores/MDCloningSubSystemSetting.cpp
    stores/MDContact.cpp
    stores/MDContactGroup.cpp
    stores/MDCustomTree.cpp
    stores/MDJCLSkeleton.cpp
    stores/MDLocationMapping.cpp
    stores/MDSubSystemSetting.cpp
    stores/MDUtilNameMapping.cpp
    stores/MDUtilityHistory.cpp
    stores/group_expansion.cpp
    stores/list_limit.cpp
    api/cells.cpp
    api/combined_contact.cpp
    api/combined_contact_group.cpp
    api/contact.cpp
    api/contact_group.cpp
    api/group_cascade.cpp
    api/one_key.cpp
    api/two_key.cpp
  MAP zonmdfile.map
  DEPENDS zonosse zoncmncoll zonvekapi zongenreg)
