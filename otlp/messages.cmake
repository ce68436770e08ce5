# OTLP's messages as a library of their own, quorbit_otlp: generated from the official definitions, for protobuf's lite runtime.
# Without npm there is none, and OTLP goes out as JSON alone.
set(protos "${CMAKE_SOURCE_DIR}/build/otlp")
execute_process(COMMAND "${CMAKE_SOURCE_DIR}/otlp/fetch" "${protos}" RESULT_VARIABLE fetch_result ERROR_VARIABLE fetch_error)
if(NOT fetch_result EQUAL 0)
  message(NOTICE "note: without the definitions of OTLP, which could not be had, it is sent as JSON only: ${fetch_error}")
  return()
endif()
find_package(Protobuf REQUIRED)
set(generated "${CMAKE_BINARY_DIR}/otlp")
file(MAKE_DIRECTORY "${generated}")
foreach(name common/v1/common resource/v1/resource trace/v1/trace metrics/v1/metrics collector/trace/v1/trace_service
        collector/metrics/v1/metrics_service)
  list(APPEND proto_files "opentelemetry/proto/${name}.proto")
  list(APPEND proto_sources "${generated}/opentelemetry/proto/${name}.pb.cc")
endforeach()
add_custom_command(OUTPUT ${proto_sources} COMMAND protobuf::protoc "--cpp_out=lite:${generated}" -I . ${proto_files}
                   WORKING_DIRECTORY "${protos}" VERBATIM)
add_library(quorbit_otlp STATIC ${proto_sources})
target_include_directories(quorbit_otlp SYSTEM PUBLIC "${generated}")
target_compile_options(quorbit_otlp PRIVATE -w)
target_compile_definitions(quorbit_otlp INTERFACE QUORBIT_OTLP_MESSAGES=1)
target_link_libraries(quorbit_otlp PUBLIC protobuf::libprotobuf-lite)
