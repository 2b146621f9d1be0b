-- Process 1 without texts (the table is made anew to allow NULL), process 2
-- renamed qvlong with a 300-character description, and the value of its
-- setting t1 2000 characters long.
create table P2 (no integer, processName text, processDescribe text);
drop table ProcessConfig;
alter table P2 rename to ProcessConfig;
insert into ProcessConfig values (1, NULL, NULL), (2, 'qvlong', printf('%.*c', 300, 'd'));
update ProcessMisc set value = printf('%.*c', 2000, 'v') where key = 't1';
