# The tool test runs build/tqfplay, so the tool is built with it.
add_dependencies(tqfplay_tool_test tqfplay)
