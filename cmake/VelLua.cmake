# vel_lua_archive(<target> <folder> <archive> [WITH <name> <file> ...]): packs the Lua files below <folder> into a ZIP
# archive, under their names relative to the folder, and each further <file> as <name>.
#
# The same contents give the same archive, byte for byte.
function(vel_lua_archive target folder archive)
    cmake_parse_arguments(PARSE_ARGV 3 arg "" "" "WITH")
    set(packer ${CMAKE_SOURCE_DIR}/cmake/pack_archive.sh)

    set(entries ${arg_WITH})
    set(sources)
    while(arg_WITH)
        list(POP_FRONT arg_WITH name file)
        list(APPEND sources ${file})
    endwhile()
    file(GLOB_RECURSE modules CONFIGURE_DEPENDS RELATIVE ${folder} ${folder}/*.lua)
    foreach(module IN LISTS modules)
        list(APPEND entries ${module} ${folder}/${module})
        list(APPEND sources ${folder}/${module})
    endforeach()

    get_filename_component(archive_folder ${archive} DIRECTORY)
    add_custom_command(
        OUTPUT ${archive}
        COMMAND ${CMAKE_COMMAND} -E make_directory ${archive_folder}
        COMMAND ${packer} ${archive} ${entries}
        DEPENDS ${sources} ${packer}
        COMMENT "Packing ${target}"
        VERBATIM)
    add_custom_target(${target} ALL DEPENDS ${archive})
endfunction()
