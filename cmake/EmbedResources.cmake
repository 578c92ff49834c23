# Compiles resources/*.lng into a target, byte for byte: writes kds_resources.cpp into the binary
# folder, which defines kds::Resources() of kds/platform/Resources.h. A resource bears its file's
# name in capitals with _ in place of the dot: russian_kds.lng is RUSSIAN_KDS_LNG.
#   kds_embed_resources(<target>)
function(kds_embed_resources target)
    file(GLOB files CONFIGURE_DEPENDS ${PROJECT_SOURCE_DIR}/resources/*.lng)
    list(SORT files)
    set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS ${files})

    set(arrays "")
    set(entries "")
    foreach(path IN LISTS files)
        get_filename_component(name ${path} NAME)
        string(TOUPPER ${name} name)
        string(REPLACE "." "_" name ${name})
        file(READ ${path} bytes HEX)
        # Thirteen bytes a line; each as a character literal, so that no value has to be narrowed.
        string(REGEX REPLACE "(..)" "'\\\\x\\1'," bytes "${bytes}")
        string(REPEAT "'.x..'," 13 row)
        string(REGEX REPLACE "(${row})" "\\1\n    " bytes "${bytes}")
        string(APPEND arrays "constexpr char ${name}[] = {\n    ${bytes}};\n\n")
        string(APPEND entries "    {u\"${name}\", {${name}, sizeof ${name}}},\n")
    endforeach()

    set(source ${CMAKE_CURRENT_BINARY_DIR}/kds_resources.cpp)
    # CONFIGURE leaves the file alone when nothing has changed.
    file(CONFIGURE OUTPUT ${source} @ONLY CONTENT
"// Made from resources/ when the build is configured; changes belong there.
#include \"kds/platform/Resources.h\"

namespace kds {
namespace {

${arrays}constexpr TResource All[] = {
${entries}};

}  // namespace

std::span<const TResource> Resources() noexcept { return All; }

}  // namespace kds
")
    target_sources(${target} PRIVATE ${source})
endfunction()
