# How the project's own code is compiled: the language, the warnings, the sanitizers.

set(KOR_WARNINGS -Wall -Wextra -Wpedantic -Wshadow -Wconversion -Wsign-conversion -Wcast-qual -Wformat=2 -Wundef -Wvla
                 -Wimplicit-fallthrough -Werror)
set(KOR_CXX_WARNINGS -Wnon-virtual-dtor -Woverloaded-virtual -Wextra-semi)

if(KOR_SANITIZE)
    add_compile_options(-fsanitize=${KOR_SANITIZE} -fno-sanitize-recover=all -fno-omit-frame-pointer)
    add_link_options(-fsanitize=${KOR_SANITIZE})
    # GCC 12 sees uninitialised members in the standard library's regular expressions once sanitizers rearrange the code;
    # the warning can come back with a compiler that does not.
    if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
        list(APPEND KOR_WARNINGS -Wno-maybe-uninitialized)
    endif()
endif()

# The library's code: no exceptions, no run-time types, no guards around local statics, hence no C++ runtime.
function(kor_compile target)
    target_compile_features(${target} PUBLIC c_std_11 PRIVATE cxx_std_20)
    target_compile_options(${target} PRIVATE ${KOR_WARNINGS} $<$<COMPILE_LANGUAGE:CXX>:${KOR_CXX_WARNINGS}
        -fno-exceptions -fno-rtti -fno-threadsafe-statics> -fno-semantic-interposition -ffunction-sections)
    set_target_properties(${target} PROPERTIES CXX_EXTENSIONS OFF POSITION_INDEPENDENT_CODE ON)
    if(WIN32)
        # Formats are C99's everywhere, and the old system library's printf does not know them.
        target_compile_definitions(${target} PRIVATE __USE_MINGW_ANSI_STDIO=1 WIN32_LEAN_AND_MEAN _WIN32_WINNT=0x0A00)
        target_link_options(${target} PRIVATE -static-libgcc -Wl,--gc-sections)
    elseif(KOR_SANITIZE)
        target_link_options(${target} PRIVATE -Wl,-Bsymbolic-functions)
    else()
        target_link_options(${target} PRIVATE -Wl,-Bsymbolic-functions -Wl,--no-undefined -Wl,--as-needed
                            -Wl,--gc-sections -Wl,-z,relro,-z,now)
    endif()
endfunction()

# Tests, benchmarks and examples: the same warnings, the language's full library.
function(kor_compile_program target)
    target_compile_features(${target} PRIVATE c_std_11 cxx_std_20)
    target_compile_options(${target} PRIVATE ${KOR_WARNINGS} $<$<COMPILE_LANGUAGE:CXX>:${KOR_CXX_WARNINGS}>)
    set_target_properties(${target} PROPERTIES CXX_EXTENSIONS OFF)
    if(WIN32)
        target_compile_definitions(${target} PRIVATE __USE_MINGW_ANSI_STDIO=1 WIN32_LEAN_AND_MEAN _WIN32_WINNT=0x0A00)
        target_link_options(${target} PRIVATE -static)
    endif()
endfunction()
