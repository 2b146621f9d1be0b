-- TopoInfor becomes a view whose rows past id 2 with the left link bus1
-- cannot be computed (integer overflow).
alter table TopoInfor rename to Nodes;
create view TopoInfor as select * from Nodes
where case when id > 2 and l_link = 'bus1' then abs(-9223372036854775808) else 1 end;
