# Every external package, in one place. All of them come from Debian (script/bootstrap).

find_package(PkgConfig REQUIRED)
find_package(Threads REQUIRED)
find_package(OpenSSL 3.0 REQUIRED)
find_package(ZLIB REQUIRED)

# Only the base library: the agent has no user interface.
find_package(wxWidgets 3.2 REQUIRED COMPONENTS base)
separate_arguments(wxWidgets_CXX_FLAGS)
add_library(wx::base INTERFACE IMPORTED)
target_include_directories(wx::base SYSTEM INTERFACE ${wxWidgets_INCLUDE_DIRS})
target_compile_definitions(wx::base INTERFACE ${wxWidgets_DEFINITIONS} wxUSE_GUI=0 wxNO_UNSAFE_WXSTRING_CONV)
target_compile_options(wx::base INTERFACE ${wxWidgets_CXX_FLAGS})
target_link_libraries(wx::base INTERFACE ${wxWidgets_LIBRARIES})

# Debian's lua5.2.pc also lists the C++ build of the library, so the plain one is named here.
pkg_check_modules(LUA52 REQUIRED lua5.2)
find_library(LUA52_LIBRARY lua5.2 REQUIRED)
add_library(lua::lua52 INTERFACE IMPORTED)
target_include_directories(lua::lua52 SYSTEM INTERFACE ${LUA52_INCLUDE_DIRS})
target_link_libraries(lua::lua52 INTERFACE ${LUA52_LIBRARY})

pkg_check_modules(DW REQUIRED IMPORTED_TARGET libdw libelf)
pkg_check_modules(DEFLATE REQUIRED IMPORTED_TARGET libdeflate)
pkg_check_modules(SQLITE3 REQUIRED IMPORTED_TARGET sqlite3)

# The test framework that goes into the generic core archive, with its licence.
find_file(LUAUNIT_MODULE luaunit.lua PATHS /usr/share/lua/5.2 REQUIRED NO_DEFAULT_PATH)
find_file(LUAUNIT_COPYRIGHT copyright PATHS /usr/share/doc/lua-unit REQUIRED NO_DEFAULT_PATH)
