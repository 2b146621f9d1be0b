-- A terminal (id 2, state 9) and a topology node (id 8) whose texts are
-- 1000 L's.
insert into LTUInfor values (2, '', '', '', '', printf('%.*c', 1000, 'L'), '', 0, 9,
                             printf('%.*c', 1000, 'L'));
insert into TopoInfor values (8, printf('%.*c', 1000, 'L'), printf('%.*c', 1000, 'L'), 'n',
                              printf('%.*c', 1000, 'L'), 'r', 0, printf('%.*c', 1000, 'L'), 's');
