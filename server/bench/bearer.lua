wrk.headers["Authorization"] = "Bearer " .. os.getenv("TAVELO_BENCH_KEY")
