-- The rows that the stress processes write: each of 3 writers owns the pair
-- a, b and the counter n; the data set dsStress of IED STRESS has 16 members.
with recursive w(i) as (select 0 union all select i + 1 from w where i < 2),
     r(name) as (values ('a'), ('b'), ('n'))
insert into DAValue select rowkey('STRESS/W' || i || '$' || name), 1, 0, 0, 0 from w, r;
with recursive m(i) as (select 0 union all select i + 1 from m where i < 15)
insert into DataSetSub(fcdaName, iedName, dsName)
select 'STRESS/SET$m' || i, 'STRESS', 'dsStress' from m;
insert into DAValue select rowkey(fcdaName), 1, 0, 0, 0 from DataSetSub where iedName = 'STRESS';
