// command_line
