-- The rows of the threads of one process: each of 4 threads owns the pair
-- a, b (saved together) and the counter n.
with recursive t(i) as (select 0 union all select i + 1 from t where i < 3),
     r(name) as (values ('a'), ('b'), ('n'))
insert into DAValue select rowkey('THREADS/T' || i || '$' || name), 1, 0, 0, 0 from t, r;
