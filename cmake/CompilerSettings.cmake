# What every target here links: the language level, the warnings, the hardening.
add_library(corvelkx_settings INTERFACE)
target_compile_definitions(corvelkx_settings INTERFACE
    QT_NO_CAST_FROM_ASCII
    QT_NO_CAST_TO_ASCII
    QT_NO_FOREACH
    QT_STRICT_ITERATORS
    PROJECT_VERSION="${PROJECT_VERSION}")

set(CMAKE_CXX_STANDARD 17)
set(CMAKE_CXX_STANDARD_REQUIRED ON)
set(CMAKE_CXX_EXTENSIONS OFF)
set(CMAKE_CXX_VISIBILITY_PRESET hidden)
set(CMAKE_VISIBILITY_INLINES_HIDDEN ON)
set(CMAKE_POSITION_INDEPENDENT_CODE ON)
set(CMAKE_EXPORT_COMPILE_COMMANDS ON)

if(MSVC)
    target_compile_options(corvelkx_settings INTERFACE
        /utf-8 /W4 $<$<BOOL:${CORVELKX_WERROR}>:/WX>)
    return()
endif()

target_compile_options(corvelkx_settings INTERFACE
    -Wall -Wextra -Wpedantic -Wshadow -Wconversion
    $<$<BOOL:${CORVELKX_WERROR}>:-Werror>)
if(NOT MINGW) # there it would need one more DLL
    target_compile_options(corvelkx_settings INTERFACE -fstack-protector-strong)
endif()
if(CMAKE_CXX_COMPILER_ID MATCHES "Clang")
    # qCDebug() leaves its variadic part empty, and clang warns of that.
    target_compile_options(corvelkx_settings INTERFACE -Wno-gnu-zero-variadic-macro-arguments)
endif()
if(CMAKE_SYSTEM_NAME STREQUAL "Linux")
    target_link_options(corvelkx_settings INTERFACE
        -Wl,-z,relro -Wl,-z,now -Wl,-z,noexecstack -Wl,--as-needed)
    if(NOT CORVELKX_SANITIZE MATCHES "." OR CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
        target_link_options(corvelkx_settings INTERFACE -Wl,--no-undefined)
    endif()
endif()
if(CORVELKX_SANITIZE)
    # Without the check of dynamic types: it needs the type information of the plugin's interface, which
    # a host that uses the library has not, and gcc's reports valid calls of members of a second base.
    target_compile_options(corvelkx_settings INTERFACE
        -fsanitize=${CORVELKX_SANITIZE} -fno-sanitize=vptr -fno-sanitize-recover=all
        -fno-omit-frame-pointer)
    target_link_options(corvelkx_settings INTERFACE -fsanitize=${CORVELKX_SANITIZE})
elseif(NOT MINGW) # as above
    target_compile_definitions(corvelkx_settings INTERFACE
        $<$<CONFIG:Release,RelWithDebInfo>:_FORTIFY_SOURCE=2>)
endif()
