// config_file
