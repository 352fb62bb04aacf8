// C entry points of the lookup by tag.
#include "configmanager/cm_tags.h"
#include "tags/tag_table.h"

static_assert(sizeof(CM_TagEntry) == sizeof(cm::tags::TagEntry));
static_assert(CM_NUM_TAGS == cm::tags::kNumTags);

extern "C" {

CM_EXPORT int CM_TagMapping(void) { return cm::tags::tagMapping(); }

CM_EXPORT int CM_Load_CMTagSortedList(void) { return cm::tags::loadSortedList(); }

CM_EXPORT int CM_CompareVarNames(const void* pA, const void* pB) { return cm::tags::compareVarNames(pA, pB); }

CM_EXPORT int CM_FindMatchingCMvarTag(const char* szTag, int32_t* piVarID_Abs) {
    return cm::tags::findMatchingTag(szTag, piVarID_Abs);
}

CM_EXPORT int CM_FindFileIndexRelativeIDCMTag(const char* szTag, int32_t* piFileIndex, int32_t* piVarID_Rel) {
    return cm::tags::findFileIndexRelativeId(szTag, piFileIndex, piVarID_Rel);
}

}
