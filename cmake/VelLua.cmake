# vel_lua_archive(<target> <folder> <archive> [WITH <name>=<file> ...]): packs the Lua files below <folder> into a ZIP
# archive, under their names relative to the folder, and each further <file> as <name>.
#
# The same contents give the same archive, byte for byte.
function(vel_lua_archive target folder archive)
    cmake_parse_arguments(PARSE_ARGV 3 arg "" "" "WITH")
    file(GLOB_RECURSE sources CONFIGURE_DEPENDS ${folder}/*.lua)
    foreach(entry IN LISTS arg_WITH)
        string(REGEX REPLACE "^[^=]*=" "" file ${entry})
        list(APPEND sources ${file})
    endforeach()
    vel_pack(${target} ${archive} "${sources}" archive ${folder} ${arg_WITH})
endfunction()

# vel_plugin(<target> <folder> <package>): makes a plug-in package of the files below <folder>.
function(vel_plugin target folder package)
    file(GLOB_RECURSE sources CONFIGURE_DEPENDS ${folder}/*)
    vel_pack(${target} ${package} "${sources}" plugin ${folder})
endfunction()

# vel_pack(<target> <output> <sources> <word> ...): what kx-pack makes with these words.
function(vel_pack target output sources)
    get_filename_component(output_folder ${output} DIRECTORY)
    add_custom_command(
        OUTPUT ${output}
        COMMAND ${CMAKE_COMMAND} -E make_directory ${output_folder}
        COMMAND kx-pack ${ARGN} -o ${output}
        DEPENDS ${sources} kx-pack
        COMMENT "Packing ${target}"
        VERBATIM)
    add_custom_target(${target} ALL DEPENDS ${output})
endfunction()
