// C entry points of get and set.
#include "configmanager/cm_getset.h"
#include "getset/getset.h"

using namespace cm::getset;

extern "C" {

CM_EXPORT int CM_Get_Variable(int32_t iVarID_Abs, void* pValue) { return getVariable(iVarID_Abs, pValue); }

CM_EXPORT int CM_Get_Variable_Log_Error(int32_t iVarID_Abs, void* pValue) {
    return getVariableLogError(iVarID_Abs, pValue);
}

CM_EXPORT int CM_Get_Variable_Default_Value(int32_t iVarID_Abs, void* pValue) {
    return getVariableDefault(iVarID_Abs, pValue);
}

CM_EXPORT int CM_Get_Variable_Check_Value(int32_t iVarID_Abs, void* pValue) {
    return getVariableChecked(iVarID_Abs, pValue);
}

CM_EXPORT int CM_Set_Variable(int32_t iVarID_Abs, const void* pValue) { return setVariable(iVarID_Abs, pValue); }

CM_EXPORT int CM_Set_Variable_Log_Error(int32_t iVarID_Abs, const void* pValue) {
    return setVariableLogError(iVarID_Abs, pValue);
}

// The caller flag is part of the interface but changes nothing.
CM_EXPORT int CM_Set_Variable_CMI(int32_t iVarID_Abs, const void* pValue, int) {
    return setVariableCmi(iVarID_Abs, pValue);
}

CM_EXPORT int CM_Set_Variable_CMI_Log_Error(int32_t iVarID_Abs, const void* pValue, int) {
    return setVariableCmiLogError(iVarID_Abs, pValue);
}

}
