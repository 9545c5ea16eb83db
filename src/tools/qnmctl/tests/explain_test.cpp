// explain
