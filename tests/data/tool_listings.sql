-- Texts that JSON must escape: quotes, a tab, a backslash, and UTF-8.
insert into LTUInfor values(7,'1.0','2','3','4','ltu "7"','addr	1',2,1,'café');
insert into ltu_access_list values('2026-01-01','dev\1',3,'d','k','v');
insert into TopoInfor values(1,'sw','LN1','LN1','a','b',1,'QVFTU1','S1');
