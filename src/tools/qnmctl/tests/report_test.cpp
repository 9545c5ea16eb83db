// report
