add_compile_options(-Wall -Wextra -Wpedantic -Wconversion -Wshadow)
if(WARNINGS_AS_ERRORS)
    add_compile_options(-Werror)
endif()
