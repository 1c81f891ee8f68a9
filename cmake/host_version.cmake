# Sets TARN_HOST_VERSION_TEXT and TARN_HOST_FLAGS and writes host/version.h.

set(TARN_HOST_FLAGS "USE_TCP, USE_TLS, USE_SCTP, TLS_HOOKS, USE_RAW_SOCKS, DISABLE_NAGLE, USE_MCAST, DNS_IP_HACK, SHM_MMAP, PKG_MALLOC, MEM_JOIN_FREE, Q_MALLOC, F_MALLOC, TLSF_MALLOC, DBG_SR_MEMORY, USE_FUTEX, FAST_LOCK-ADAPTIVE_WAIT, USE_DNS_CACHE, USE_DNS_FAILOVER, USE_NAPTR, USE_DST_BLOCKLIST, HAVE_RESOLV_RES, TLS_PTHREAD_MUTEX_SHARED")
set(TARN_HOST_VERSION_TEXT "kamailio ${TARN_HOST_VERSION} (x86_64/linux)")

if(KAMAILIO)
  execute_process(COMMAND ${KAMAILIO} -v OUTPUT_VARIABLE host_says RESULT_VARIABLE host_result)
  if(NOT host_result EQUAL 0)
    message(FATAL_ERROR "${KAMAILIO} -v failed: ${host_result}")
  endif()
  if(NOT host_says MATCHES "version: (kamailio 6\\.0\\.[^\n]*[^ \n]) *\n")
    message(FATAL_ERROR "${KAMAILIO} is not a Kamailio 6.0.x: ${host_says}")
  endif()
  set(TARN_HOST_VERSION_TEXT "${CMAKE_MATCH_1}")
  if(NOT host_says MATCHES "flags: ([^\n]*[^ \n]) *\n")
    message(FATAL_ERROR "${KAMAILIO} -v tells no build flags: ${host_says}")
  endif()
  set(TARN_HOST_FLAGS "${CMAKE_MATCH_1}")
endif()

# Without this flag the host's allocators take fewer arguments than host/abi.h declares.
if(NOT TARN_HOST_FLAGS MATCHES "DBG_SR_MEMORY")
  message(FATAL_ERROR "a host without DBG_SR_MEMORY has another binary interface")
endif()

configure_file(${CMAKE_SOURCE_DIR}/host/version.h.in
               ${CMAKE_BINARY_DIR}/generated/host/version.h @ONLY)
