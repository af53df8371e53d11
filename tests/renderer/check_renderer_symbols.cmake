# The renderer library exports its thirteen C functions and nothing else.
execute_process(COMMAND ${NM} -D --defined-only ${LIB} OUTPUT_VARIABLE defined RESULT_VARIABLE r)
if(NOT r EQUAL 0)
  message(FATAL_ERROR "nm failed on ${LIB}")
endif()
string(REGEX MATCHALL "[^\n]+" lines "${defined}")
set(names "")
foreach(line IN LISTS lines)
  string(REGEX REPLACE "^.* " "" name "${line}")
  list(APPEND names "${name}")
endforeach()
list(SORT names)
set(expected vmKtrRT_CameraLayout_Set vmKtrRT_GLClose vmKtrRT_GLInitV1 vmKtrRT_GLInitV1_1 vmKtrRT_GLSetDebugPicture
             vmKtrRT_GLShowDebugPicture vmKtrRT_GLStartV1 vmKtrRT_GenRefocusMap vmKtrRT_GenRefocusMap_Deinit
             vmKtrRT_GenRefocusMap_VX4810_DispartyBase vmKtrRT_GenRefocusMap_init vmKtrRT_SetParameter
             vmKtr_GLVersionInfo_Get)
list(SORT expected)
if(NOT names STREQUAL expected)
  message(FATAL_ERROR "defined dynamic symbols are [${names}], expected [${expected}]")
endif()
