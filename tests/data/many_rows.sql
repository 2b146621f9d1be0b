-- 1000 value rows, MANY/R0 to MANY/R999, spread over many pages of the store.
with recursive r(i) as (select 0 union all select i + 1 from r where i < 999)
insert into DAValue select rowkey('MANY/R' || i), 1, 0, 0, 0 from r;
