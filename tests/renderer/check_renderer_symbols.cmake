# The renderer library exports its thirteen C functions and nothing else.
include(${CMAKE_CURRENT_LIST_DIR}/../../cmake/DynamicSymbols.cmake)
vmktr_defined_dynamic_symbols(${NM} ${LIB} names)
set(expected vmKtrRT_CameraLayout_Set vmKtrRT_GLClose vmKtrRT_GLInitV1 vmKtrRT_GLInitV1_1 vmKtrRT_GLSetDebugPicture
             vmKtrRT_GLShowDebugPicture vmKtrRT_GLStartV1 vmKtrRT_GenRefocusMap vmKtrRT_GenRefocusMap_Deinit
             vmKtrRT_GenRefocusMap_VX4810_DispartyBase vmKtrRT_GenRefocusMap_init vmKtrRT_SetParameter
             vmKtr_GLVersionInfo_Get)
list(SORT expected)
if(NOT names STREQUAL expected)
  message(FATAL_ERROR "defined dynamic symbols are [${names}], expected [${expected}]")
endif()
