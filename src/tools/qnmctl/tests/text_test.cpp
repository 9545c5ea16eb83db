// text
