// command
