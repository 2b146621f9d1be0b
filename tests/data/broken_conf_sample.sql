insert into ProcessConfig values(1,'a','');
insert into Nowhere values(1);
