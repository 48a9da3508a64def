#!/usr/bin/env python3
"""Writes TalvorBaseLib/messages/TalvorErrorTable.cpp: the Chinese and the English
error table shared with the engine.

The rows live below as "code|English|Chinese", one a line. The script refuses
to write anything unless the codes are exactly the published runs, ascending
and unique, every text fits its 160-byte slot with the terminator, and every
Chinese twin carries the same conversions, in the same order, as its English
row (a caller formats both with the same arguments).

Run from anywhere:  python3 scripts/gen-error-table.py
With --check it writes nothing and fails when the .cpp in the tree is not what
the rows below would give.
"""
import os
import re
import sys

# The codes the engine knows, as runs. Both tables hold exactly these.
RUNS = (
    "0-127, 130-133, 140, 150-156, 200-203, 300-340, 345-346, 350-351, 360-363, 380, "
    "500-524, 526, 529-542, 545-546, 551-574, 580-583, 585, 590-595, 607-616, 650-657, "
    "660-664, 670-671, 700-702, 710, 800-801, 804-845, 870-872, 874, 900-912, 1000-1010, "
    "1016-1038, 1040-1041, 1050-1080, 1085-1096, 1100-1105, 1110-1112, 1150-1164, "
    "1170-1172, 1200-1203, 1300, 1305-1310, 1313, 1315, 1500-1506, 1508-1551, 1555-1558, "
    "1560-1565, 1610, 1612, 1700-1703, 1800-1802, 2500-2501, 2600-2602, 3000-3009, "
    "3500-3503, 3550, 4000-4002, 4500-4503, 5000-5028, 5030-5038, 5100-5102, 5104-5107, "
    "6000-6002, 6500-6501, 8000-8002, 8010-8014, 8020-8021, 8030, 8050-8052, 8054-8055, "
    "8100-8102, 8500-8506, 8510-8526, 8600-8609, 9000-9037, 9500-9503, 10001-10045, "
    "10050-10054, 10060-10064, 10070-10074"
)
ROW_COUNT = 782
TEXT_SLOT = 160

# Trailing blanks matter (131 keeps its one): fields are never stripped.
ROWS = """\
0|OK|成功
1|Failed|失败
2|Exception|异常
3|Failed to allocate memory|分配内存失败
4|Failed to free memory|释放内存失败
5|Failed to open file|打开文件失败
6|Failed to create file|创建文件失败
7|Failed to read file|读取文件失败
8|Failed to write file|写入文件失败
9|Failed to seek in file|文件定位失败
10|Failed to close file|关闭文件失败
11|Failed to delete file|删除文件失败
12|File does not exist|文件不存在
13|File already exists|文件已存在
14|File is damaged|文件已损坏
15|File is locked by another process|文件被其他进程锁定
16|Not enough disk space|磁盘空间不足
17|Failed to create directory|创建目录失败
18|Invalid file path|无效的文件路径
19|Failed to read block|读取数据块失败
20|Failed to write block|写入数据块失败
21|Block mark is invalid|数据块标识无效
22|Block is damaged|数据块已损坏
23|Block number is out of range|数据块号超出范围
24|No free block available|没有可用的空闲数据块
25|Lock wait failed|锁等待失败
26|Lock is held by another transaction|锁被其他事务持有
27|Lock wait timeout exceeded; try restarting transaction|锁等待超时，请尝试重新启动事务
28|Failed to create lock|创建锁失败
29|Failed to release lock|释放锁失败
30|Failed to create shared memory|创建共享内存失败
31|Failed to attach shared memory|映射共享内存失败
32|Failed to detach shared memory|解除共享内存映射失败
33|Shared memory does not exist|共享内存不存在
34|Failed to create semaphore|创建信号量失败
35|Failed to wait for semaphore|等待信号量失败
36|Failed to create event|创建事件失败
37|Failed to create thread|创建线程失败
38|Thread exited abnormally|线程异常退出
39|Wait timeout|等待超时
40|Cache is full|缓存已满
41|Cache is not initialized|缓存未初始化
42|Failed to load block into cache|加载数据块到缓存失败
43|Failed to flush cache|刷新缓存失败
44|Block is not found in cache|缓存中未找到数据块
45|Cache data is inconsistent|缓存数据不一致
46|Buffer is too small|缓冲区太小
47|Buffer overflow|缓冲区溢出
48|Invalid parameter|无效的参数
49|Null pointer|空指针
50|Function is not supported|不支持的功能
51|Operation is not allowed|不允许的操作
52|Operation was cancelled|操作已取消
53|Object is busy|对象正忙
54|Object does not exist|对象不存在
55|Object already exists|对象已存在
56|Version does not match|版本不匹配
57|Character set conversion failed|字符集转换失败
58|Data is too long|数据太长
59|Data type does not match|数据类型不匹配
60|Failed to create socket|创建套接字失败
61|Failed to bind socket|绑定套接字失败
62|Failed to listen on socket|套接字监听失败
63|Failed to accept connection|接受连接失败
64|Failed to connect|连接失败
65|Connection was closed|连接已关闭
66|Failed to send data|发送数据失败
67|Failed to receive data|接收数据失败
68|Invalid network address|无效的网络地址
69|Port is already in use|端口已被占用
70|Network packet is damaged|网络数据包已损坏
71|Network packet is too large|网络数据包过大
72|Network protocol error|网络协议错误
73|Socket communication congestion|Socket通信拥塞
74|Socket communication timeout|Socket通信超时
75|Too many connections|连接数过多
76|Service is not running|服务未运行
77|Service is starting|服务正在启动
78|Service is stopping|服务正在停止
79|Service is busy|服务繁忙
80|System is not initialized|系统未初始化
81|System is read-only|系统处于只读状态
82|System file is damaged|系统文件已损坏
83|System configuration is invalid|系统配置无效
84|Storage service is not ready|存储服务未就绪
85|Storage service did not respond|存储服务无响应
86|Redo log is full|重做日志已满
87|Failed to write redo log|写入重做日志失败
88|Failed to archive redo log|归档重做日志失败
89|Backup is in progress|正在进行备份
90|Restore is in progress|正在进行恢复
91|Transaction does not exist|事务不存在
92|Transaction was rolled back|事务已回滚
93|Transaction has been committed|事务已提交
94|Too many active transactions|活动事务过多
95|Transaction is too large|事务过大
96|Failed to commit transaction|提交事务失败
97|Failure: deadlock|失败：死锁
98|Failed to roll back transaction|回滚事务失败
99|License is invalid or expired|许可无效或已过期
100|Failed to add data file|添加数据文件失败
101|Data file name is invalid|数据文件名无效
102|Data file already exists|数据文件已存在
103|Data file '%s' does not exist|数据文件'%s'不存在
104|Failed to save data file|保存数据文件失败
105|Failed to load data file|加载数据文件失败
106|Failed to open data file|打开数据文件失败
107|Data file head is invalid|数据文件头无效
108|Data file mark is invalid|数据文件标识无效
109|Data file type is not supported|不支持的数据文件类型
110|Data file is in use|数据文件正在使用
111|Data file is read-only|数据文件为只读
112|Failed to extend data file|扩展数据文件失败
113|Data file has reached its maximum size|数据文件已达到最大容量
114|Data file block size is invalid|数据文件块大小无效
115|Data file storage mode is invalid|数据文件存储模式无效
116|Failed to change data file|修改数据文件失败
117|Failed to rename data file|重命名数据文件失败
118|Failed to delete data file|删除数据文件失败
119|Data files less than 4MB are not supported|不支持小于4MB的数据文件
120|Data file size exceeds the limit|数据文件大小超过限制
121|The number of data files has reached the maximum|数据文件数量已达到最大值
122|Data file path is too long|数据文件路径过长
123|Data file is not empty|数据文件不为空
124|System files are not allowed to be deleted|不允许删除系统文件
125|Data file is damaged|数据文件已损坏
126|The data files do not support reducing disk space|数据文件不支持缩减磁盘空间
127|Failed to write data file head|写入数据文件头失败
130|Failed to create save point|创建保存点失败
131|The given save point was not found |未找到指定的保存点
132|Too many save points|保存点过多
133|Failed to roll back to save point|回滚到保存点失败
140|Query result is empty|查询结果为空
150|Database already exists|数据库已存在
151|Failed to create database|创建数据库失败
152|Failed to drop database|删除数据库失败
153|Unknown database '%s'|未知的数据库'%s'
154|No database selected|未选择数据库
155|Database is in use|数据库正在使用
156|Database name is invalid|数据库名无效
200|Sequence does not exist|序列不存在
201|Sequence already exists|序列已存在
202|Sequence values have reached their maximum|序列值已达到最大值
203|Sequence parameter is invalid|序列参数无效
300|Failed to create table|创建表失败
301|Table '%s' already exists|表'%s'已存在
302|Table '%s' doesn't exist|表'%s'不存在
303|Failed to drop table|删除表失败
304|Failed to alter table|修改表失败
305|Table is in use|表正在使用
306|Table name is invalid|表名无效
307|Too many tables|表数量过多
308|Table has no fields|表没有字段
309|Table is read-only|表为只读
310|Unknown column '%s'|未知的字段'%s'
311|Column already exists|字段已存在
312|Too many columns|字段数量过多
313|Field type is invalid|字段类型无效
314|Field length is invalid|字段长度无效
315|Field default value is invalid|字段默认值无效
316|Field cannot be null|字段不能为空
317|Failed to drop field|删除字段失败
318|Failed to alter field|修改字段失败
319|Row size is too large|行长度过大
320|Failed to create index|创建索引失败
321|Index already exists|索引已存在
322|Index '%s' doesn't exist|索引'%s'不存在
323|Failed to drop index|删除索引失败
324|Too many indexes|索引数量过多
325|Too many fields in index|索引字段过多
326|Index key is too long|索引键过长
327|Primary key already exists|主键已存在
328|Primary key does not exist|主键不存在
329|Index type is not supported|不支持的索引类型
330|User already exists|用户已存在
331|User does not exist|用户不存在
332|Failed to create user|创建用户失败
333|Failed to drop user|删除用户失败
334|Password is incorrect|密码错误
335|Insufficient privileges|权限不足
336|Failed to grant privileges|授予权限失败
337|Failed to revoke privileges|收回权限失败
338|Foreign key constraint fails|外键约束失败
339|Foreign key does not exist|外键不存在
340|Foreign key definition is invalid|外键定义无效
345|Trigger already exists|触发器已存在
346|Trigger does not exist|触发器不存在
350|View already exists|视图已存在
351|View does not exist|视图不存在
360|Failed to load table cache|加载表缓存失败
361|Failed to load index cache|加载索引缓存失败
362|Failed to load user cache|加载用户缓存失败
363|Failed to load object definitions|加载对象定义失败
380|Execution plan does not exist|执行计划不存在
500|Failed to parse SQL statement|解析SQL语句失败
501|SQL statement is empty|SQL语句为空
502|SQL statement is too long|SQL语句过长
503|Unknown keyword|未知的关键字
504|Unexpected end of statement|语句意外结束
505|Unclosed quotation mark|引号未闭合
506|Unclosed parenthesis|括号未闭合
507|Invalid identifier|无效的标识符
508|Identifier is too long|标识符过长
509|Invalid number|无效的数字
510|Invalid string constant|无效的字符串常量
511|Invalid date constant|无效的日期常量
512|Invalid operator|无效的运算符
513|Invalid expression|无效的表达式
514|Expression is too complex|表达式过于复杂
515|Unknown function '%s'|未知的函数'%s'
516|Wrong number of parameters for function|函数参数个数错误
517|Invalid parameter type for function|函数参数类型无效
518|Aggregate function is not allowed here|此处不允许使用聚合函数
519|Invalid use of group function|分组函数使用无效
520|Column in select list is not in GROUP BY|选择列表中的字段不在GROUP BY中
521|Invalid ORDER BY clause|无效的ORDER BY子句
522|Invalid LIMIT clause|无效的LIMIT子句
523|You have an error in your SQL syntax|SQL语法错误
524|Column '%s' in field list is ambiguous|字段列表中的字段'%s'不明确
526|Field[%s] name exceeded the limit(32 byte)|字段[%s]名称超过限制(32字节)
529|Table name exceeded the limit|表名超过限制
530|Index name exceeded the limit|索引名超过限制
531|Too many tables in the statement|语句中的表过多
532|Too many expressions in the statement|语句中的表达式过多
533|Subquery returns more than one row|子查询返回多于一行
534|Subquery is not allowed here|此处不允许使用子查询
535|Operand should contain one column|操作数应只包含一列
536|Column count doesn't match value count|字段数与值数不匹配
537|Not unique table or alias|表名或别名不唯一
538|Invalid alias|无效的别名
539|Invalid data type|无效的数据类型
540|Invalid data length|无效的数据长度
541|Invalid precision or scale|无效的精度或小数位数
542|Invalid default value|无效的默认值
545|Invalid character set|无效的字符集
546|Invalid collation|无效的排序规则
551|Invalid CREATE statement|无效的CREATE语句
552|Invalid DROP statement|无效的DROP语句
553|Invalid ALTER statement|无效的ALTER语句
554|Invalid INSERT statement|无效的INSERT语句
555|Invalid UPDATE statement|无效的UPDATE语句
556|Invalid DELETE statement|无效的DELETE语句
557|Invalid SELECT statement|无效的SELECT语句
558|Invalid WHERE clause|无效的WHERE子句
559|Invalid HAVING clause|无效的HAVING子句
560|Invalid GROUP BY clause|无效的GROUP BY子句
561|Invalid JOIN clause|无效的JOIN子句
562|Invalid ON condition|无效的ON条件
563|Invalid SET clause|无效的SET子句
564|Invalid VALUES clause|无效的VALUES子句
565|Invalid CASE expression|无效的CASE表达式
566|Invalid CAST expression|无效的CAST表达式
567|Invalid LIKE pattern|无效的LIKE模式
568|Invalid IN list|无效的IN列表
569|Invalid BETWEEN expression|无效的BETWEEN表达式
570|Invalid variable '%s'|无效的变量'%s'
571|Invalid parameter marker|无效的参数标记
572|Too many parameters|参数过多
573|Statement is not supported|不支持的语句
574|Invalid comment|无效的注释
580|Invalid GRANT statement|无效的GRANT语句
581|Invalid REVOKE statement|无效的REVOKE语句
582|Invalid SHOW statement|无效的SHOW语句
583|Invalid SET statement|无效的SET语句
585|Invalid USE statement|无效的USE语句
590|Invalid transaction statement|无效的事务语句
591|Invalid LOCK statement|无效的LOCK语句
592|Invalid PREPARE statement|无效的PREPARE语句
593|Invalid EXECUTE statement|无效的EXECUTE语句
594|Prepared statement does not exist|预处理语句不存在
595|Invalid EXPLAIN statement|无效的EXPLAIN语句
607|Failed to build execution logic|构建执行逻辑失败
608|Failed to build join|构建连接失败
609|Too many tables in join|连接中的表过多
610|Join condition is invalid|连接条件无效
611|Join type is not supported|不支持的连接类型
612|Failed to resolve table reference|解析表引用失败
613|Failed to resolve column reference|解析字段引用失败
614|Failed to build subquery|构建子查询失败
615|Failed to build sort|构建排序失败
616|Failed to build aggregation|构建聚合失败
650|Failed to execute statement|执行语句失败
651|Statement execution was interrupted|语句执行被中断
652|Statement execution timeout|语句执行超时
653|Result set is too large|结果集过大
654|Failed to sort result|结果排序失败
655|Failed to group result|结果分组失败
656|Failed to create temporary table|创建临时表失败
657|Temporary table is full|临时表已满
660|Failed to insert row|插入行失败
661|Failed to update row|更新行失败
662|Failed to delete row|删除行失败
663|Row was changed by another transaction|行已被其他事务修改
664|Row was deleted by another transaction|行已被其他事务删除
670|Division by zero|除数为零
671|Arithmetic overflow|算术溢出
700|Failed to call function|调用函数失败
701|Function returned an invalid value|函数返回了无效的值
702|Recursion is too deep|递归层次过深
710|Statement was killed|语句已被终止
800|Syntax error in CREATE TABLE|CREATE TABLE语法错误
801|Syntax error in CREATE INDEX|CREATE INDEX语法错误
804|Syntax error in CREATE VIEW|CREATE VIEW语法错误
805|Syntax error in CREATE USER|CREATE USER语法错误
806|Syntax error in CREATE DATABASE|CREATE DATABASE语法错误
807|Syntax error in CREATE SEQUENCE|CREATE SEQUENCE语法错误
808|Syntax error in CREATE TRIGGER|CREATE TRIGGER语法错误
809|Syntax error in CREATE PROCEDURE|CREATE PROCEDURE语法错误
810|Syntax error in CREATE FUNCTION|CREATE FUNCTION语法错误
811|Syntax error in CREATE EVENT|CREATE EVENT语法错误
812|Syntax error in DROP TABLE|DROP TABLE语法错误
813|Syntax error in DROP INDEX|DROP INDEX语法错误
814|Syntax error in DROP VIEW|DROP VIEW语法错误
815|Syntax error in DROP USER|DROP USER语法错误
816|Syntax error in DROP DATABASE|DROP DATABASE语法错误
817|Syntax error in DROP SEQUENCE|DROP SEQUENCE语法错误
818|Syntax error in DROP TRIGGER|DROP TRIGGER语法错误
819|Syntax error in DROP PROCEDURE|DROP PROCEDURE语法错误
820|Syntax error in DROP FUNCTION|DROP FUNCTION语法错误
821|Syntax error in DROP EVENT|DROP EVENT语法错误
822|Syntax error in ALTER TABLE|ALTER TABLE语法错误
823|Syntax error in ALTER USER|ALTER USER语法错误
824|Syntax error in ALTER SEQUENCE|ALTER SEQUENCE语法错误
825|Syntax error in ALTER EVENT|ALTER EVENT语法错误
826|Syntax error in RENAME TABLE|RENAME TABLE语法错误
827|Syntax error in TRUNCATE TABLE|TRUNCATE TABLE语法错误
828|Syntax error in INSERT|INSERT语法错误
829|Syntax error in REPLACE|REPLACE语法错误
830|Syntax error in UPDATE|UPDATE语法错误
831|Syntax error in DELETE|DELETE语法错误
832|Syntax error in SELECT|SELECT语法错误
833|Syntax error in UNION|UNION语法错误
834|Syntax error in WITH|WITH语法错误
835|Syntax error in GRANT|GRANT语法错误
836|Syntax error in REVOKE|REVOKE语法错误
837|Syntax error in SHOW|SHOW语法错误
838|Syntax error in DESCRIBE|DESCRIBE语法错误
839|Syntax error in SET|SET语法错误
840|Syntax error in USE|USE语法错误
841|Syntax error in BEGIN|BEGIN语法错误
842|Syntax error in COMMIT|COMMIT语法错误
843|Syntax error in ROLLBACK|ROLLBACK语法错误
844|Syntax error in SAVEPOINT|SAVEPOINT语法错误
845|Syntax error in LOCK TABLES|LOCK TABLES语法错误
870|Syntax error in BACKUP|BACKUP语法错误
871|Syntax error in RESTORE|RESTORE语法错误
872|Syntax error in CALL|CALL语法错误
874|Syntax error in KILL|KILL语法错误
900|Client connection failed|客户端连接失败
901|Client connection was closed|客户端连接已关闭
902|Client connection timeout|客户端连接超时
903|Too many client connections|客户端连接数过多
904|Client authentication failed|客户端认证失败
905|Client protocol version is not supported|不支持的客户端协议版本
906|Client packet is invalid|客户端数据包无效
907|Client packet is too large|客户端数据包过大
908|Client character set is not supported|不支持的客户端字符集
909|Client session does not exist|客户端会话不存在
910|Client session was killed|客户端会话已被终止
911|Client address is not allowed|不允许的客户端地址
912|Client was idle for too long|客户端空闲时间过长
1000|Failed to allocate block|分配数据块失败
1001|Failed to free block|释放数据块失败
1002|Failed to allocate row|分配行失败
1003|Failed to free row|释放行失败
1004|Block is full|数据块已满
1005|Row does not exist|行不存在
1006|Row is damaged|行已损坏
1007|Row number is out of range|行号超出范围
1008|Row is locked|行已被锁定
1009|Row is too long|行过长
1010|Block type does not match|数据块类型不匹配
1016|Failed to read row|读取行失败
1017|Failed to write row|写入行失败
1018|Failed to read column|读取字段失败
1019|Failed to write column|写入字段失败
1020|Failed to read large object|读取大对象失败
1021|Failed to write large object|写入大对象失败
1022|Large object is too large|大对象过大
1023|Data page is full|数据页已满
1024|Data page is damaged|数据页已损坏
1025|Failed to load data page|加载数据页失败
1026|Failed to save data page|保存数据页失败
1027|Object map is full|对象映射已满
1028|Object map is damaged|对象映射已损坏
1029|Block map is damaged|块映射已损坏
1030|Free list is damaged|空闲链表已损坏
1031|Row version does not match|行版本不匹配
1032|Row timestamp is invalid|行时间戳无效
1033|Column value is out of range|字段值超出范围
1034|Column value is too long|字段值过长
1035|Incorrect value for column '%s'|字段'%s'的值不正确
1036|Column '%s' cannot be null|字段'%s'不能为空
1037|Data conversion failed|数据转换失败
1038|Data is truncated|数据被截断
1040|Out of range value for column '%s'|字段'%s'的值超出范围
1041|Data truncated for column '%s' at row 1|字段'%s'在第1行的数据被截断
1050|Failed to create B-tree|创建B树失败
1051|B-tree is damaged|B树已损坏
1052|B-tree node is full|B树节点已满
1053|B-tree node is damaged|B树节点已损坏
1054|Failed to split B-tree node|分裂B树节点失败
1055|Failed to merge B-tree nodes|合并B树节点失败
1056|Failed to insert index key|插入索引键失败
1057|Failed to delete index key|删除索引键失败
1058|Failed to update index key|更新索引键失败
1059|Index key is not found|未找到索引键
1060|Index key is invalid|索引键无效
1061|B-tree is too deep|B树层次过深
1062|Index root is invalid|索引根节点无效
1063|Index leaf is invalid|索引叶节点无效
1064|Duplicate entry %s|重复的值%s
1065|Duplicate primary key|主键重复
1066|Index is not unique|索引不唯一
1067|Index is being rebuilt|索引正在重建
1068|Failed to rebuild index|重建索引失败
1069|Index cursor is invalid|索引游标无效
1070|Index cursor is out of position|索引游标位置无效
1071|Index scan failed|索引扫描失败
1072|Index range is invalid|索引范围无效
1073|Index compare function failed|索引比较函数失败
1074|Index key type does not match|索引键类型不匹配
1075|Index page is full|索引页已满
1076|Index page is damaged|索引页已损坏
1077|Failed to load index page|加载索引页失败
1078|Failed to save index page|保存索引页失败
1079|Index statistics are invalid|索引统计信息无效
1080|Index is disabled|索引已禁用
1085|Failed to create hash index|创建哈希索引失败
1086|Hash index is damaged|哈希索引已损坏
1087|Hash bucket is full|哈希桶已满
1088|Hash bucket is damaged|哈希桶已损坏
1089|Failed to insert hash key|插入哈希键失败
1090|Failed to delete hash key|删除哈希键失败
1091|Hash key is not found|未找到哈希键
1092|Hash function failed|哈希函数失败
1093|Hash index does not support range scan|哈希索引不支持范围扫描
1094|Failed to extend hash index|扩展哈希索引失败
1095|Hash chain is too long|哈希链过长
1096|Hash index size is invalid|哈希索引大小无效
1100|Unique index cannot be built over duplicate data|已有重复数据，无法创建唯一索引
1101|Index key count does not match row count|索引键数与行数不匹配
1102|Index key is too long for B-tree|索引键对B树过长
1103|Failed to check index|检查索引失败
1104|Index and table are inconsistent|索引与表不一致
1105|Index belongs to another file|索引属于其他文件
1110|Index is locked|索引已被锁定
1111|Index lock wait timeout|索引锁等待超时
1112|Index version does not match|索引版本不匹配
1150|Rollback area is full|回滚区已满
1151|Rollback area is not initialized|回滚区未初始化
1152|Rollback record is damaged|回滚记录已损坏
1153|Rollback record is not found|未找到回滚记录
1154|Snapshot logs are out of date|快照日志已过期
1155|Snapshot data is out of bounds|快照数据越界
1156|Failed to create snapshot|创建快照失败
1157|Snapshot does not exist|快照不存在
1158|Snapshot is too old|快照过旧
1159|Failed to read snapshot|读取快照失败
1160|Undo cache is full|撤销缓存已满
1161|Failed to write undo cache|写入撤销缓存失败
1162|Failed to read undo cache|读取撤销缓存失败
1163|Rollback segment is busy|回滚段正忙
1164|Rollback timestamp is invalid|回滚时间戳无效
1170|Page number is out of range|页号超出范围
1171|Failed to allocate page|分配页失败
1172|Page size is invalid|页大小无效
1200|Data is null|数据为空
1201|Null value is not allowed|不允许空值
1202|Null pointer in data|数据中存在空指针
1203|Null value cannot be compared|空值无法比较
1300|Record does not exist|记录不存在
1305|Record already exists|记录已存在
1306|Record is damaged|记录已损坏
1307|Record is too large|记录过大
1308|Record format is invalid|记录格式无效
1309|Record is locked|记录已被锁定
1310|Record count exceeds the limit|记录数超过限制
1313|Condition is invalid|条件无效
1315|Condition is always false|条件永远为假
1500|Invalid handle|无效的句柄
1501|Invalid object|无效的对象
1502|Invalid object ID|无效的对象ID
1503|Invalid file ID|无效的文件ID
1504|Invalid block ID|无效的数据块ID
1505|Invalid row ID|无效的行ID
1506|Invalid table ID|无效的表ID
1508|Invalid index ID|无效的索引ID
1509|Invalid user ID|无效的用户ID
1510|Invalid session ID|无效的会话ID
1511|Invalid transaction ID|无效的事务ID
1512|Invalid timestamp|无效的时间戳
1513|Invalid date|无效的日期
1514|Invalid time|无效的时间
1515|Invalid datetime|无效的日期时间
1516|Invalid decimal|无效的小数
1517|Invalid integer|无效的整数
1518|Invalid floating point number|无效的浮点数
1519|Invalid string|无效的字符串
1520|Invalid binary data|无效的二进制数据
1521|Invalid character|无效的字符
1522|Invalid encoding|无效的编码
1523|Invalid command|无效的命令
1524|Invalid command parameter|无效的命令参数
1525|Invalid configuration value|无效的配置值
1526|Invalid path|无效的路径
1527|Invalid name|无效的名称
1528|Invalid length|无效的长度
1529|Invalid offset|无效的偏移
1530|Invalid size|无效的大小
1531|Invalid state|无效的状态
1532|Invalid mode|无效的模式
1533|Invalid option|无效的选项
1534|Invalid format|无效的格式
1535|Invalid version|无效的版本
1536|Invalid mark|无效的标识
1537|Invalid checksum|无效的校验和
1538|Invalid key|无效的键
1539|Invalid value|无效的值
1540|Import file does not exist|导入文件不存在
1541|Failed to open import file|打开导入文件失败
1542|Import file format is invalid|导入文件格式无效
1543|Failed to import data|导入数据失败
1544|Import was cancelled|导入已取消
1545|Import column count does not match|导入字段数不匹配
1546|Import line is too long|导入行过长
1547|Import stopped at a bad line|导入在错误行处停止
1548|Too many errors during import|导入过程中错误过多
1549|Import target table is not empty|导入目标表不为空
1550|Import character set is invalid|导入字符集无效
1551|Import is in progress|正在进行导入
1555|User is locked|用户已被锁定
1556|User password has expired|用户密码已过期
1557|User has no privilege on the database|用户没有该数据库的权限
1558|User has no privilege on the table|用户没有该表的权限
1560|Access denied for user %s|用户%s访问被拒绝
1561|Too many login failures|登录失败次数过多
1562|Login from this host is not allowed|不允许从此主机登录
1563|User is already logged in|用户已登录
1564|Administrator cannot be dropped|不能删除管理员
1565|Privilege is not supported|不支持的权限
1610|Calling flashback is timeout|调用闪回超时
1612|Flashback failed|闪回失败
1700|Covering index is not available|覆盖索引不可用
1701|Covering index is out of date|覆盖索引已过期
1702|Failed to build covering index|构建覆盖索引失败
1703|Covering index does not contain the column|覆盖索引不包含该字段
1800|Numeric value is out of range|数值超出范围
1801|Overflow when converting Decimal to BIGINT|将Decimal转换为BIGINT时溢出
1802|Overflow when converting Decimal to INT|将Decimal转换为INT时溢出
2500|UNION column count does not match|UNION的字段数不匹配
2501|UNION column type does not match|UNION的字段类型不匹配
2600|Failed to build index plan|构建索引计划失败
2601|No usable index for the plan|计划没有可用的索引
2602|Index plan is invalid|索引计划无效
3000|Index optimizer failed|索引优化器失败
3001|Too many index candidates|候选索引过多
3002|Index condition cannot be used|索引条件无法使用
3003|Index range cannot be computed|无法计算索引范围
3004|Index statistics are missing|缺少索引统计信息
3005|Index cost cannot be estimated|无法估算索引代价
3006|Index hint is invalid|索引提示无效
3007|Index in hint doesn't exist|提示中的索引不存在
3008|Index order cannot be used for sorting|索引顺序无法用于排序
3009|Index merge is not supported|不支持索引合并
3500|Failed to plan join|连接规划失败
3501|Join order is invalid|连接顺序无效
3502|Too many join combinations|连接组合过多
3503|Join plan has no driving table|连接计划没有驱动表
3550|Cartesian product is too large|笛卡尔积过大
4000|MySQL client disconnected|MySQL客户端已断开连接
4001|MySQL command is not supported|不支持的MySQL命令
4002|MySQL packet sequence is wrong|MySQL数据包序号错误
4500|Common table expression '%s' doesn't exist|公用表表达式'%s'不存在
4501|Recursive common table expression is invalid|递归公用表表达式无效
4502|Recursion limit of common table expression exceeded|超出公用表表达式的递归限制
4503|Common table expression name is duplicated|公用表表达式名称重复
5000|Cluster is not initialized|集群未初始化
5001|Cluster node does not exist|集群节点不存在
5002|Cluster node already exists|集群节点已存在
5003|Failed to join cluster|加入集群失败
5004|Failed to leave cluster|退出集群失败
5005|Cluster node is offline|集群节点已离线
5006|Cluster node is not the master|集群节点不是主节点
5007|Cluster has no master|集群没有主节点
5008|Cluster master already exists|集群主节点已存在
5009|Failed to elect cluster master|选举集群主节点失败
5010|Cluster configuration is invalid|集群配置无效
5011|Group network initialization failed|组网络初始化失败
5012|Group network sending failed|组网络发送失败
5013|Group network reception failed|组网络接收失败
5014|Group network timeout|组网络超时
5015|Cluster heartbeat lost|集群心跳丢失
5016|Cluster node identity is invalid|集群节点身份无效
5017|Cluster node count reached the maximum|集群节点数已达到最大值
5018|Failed to synchronize cluster data|同步集群数据失败
5019|Cluster data is inconsistent|集群数据不一致
5020|Failed to transfer file to cluster node|向集群节点传输文件失败
5021|Cluster file transfer was interrupted|集群文件传输被中断
5022|Failed to ship redo log to standby|向备机传送重做日志失败
5023|Standby node is behind|备机节点落后
5024|Standby node does not exist|备机节点不存在
5025|Standby connection failed|备机连接失败
5026|Standby log position is invalid|备机日志位置无效
5027|Cluster virtual IP is not available|集群虚拟IP不可用
5028|Failed to bind cluster virtual IP|绑定集群虚拟IP失败
5030|Cluster command is invalid|集群命令无效
5031|Cluster command timeout|集群命令超时
5032|Cluster command failed on a node|集群命令在节点上执行失败
5033|Cluster is busy|集群繁忙
5034|Cluster is being switched|集群正在切换
5035|Failed to switch cluster master|切换集群主节点失败
5036|Cluster version does not match|集群版本不匹配
5037|Cluster token is invalid|集群令牌无效
5038|Cluster node is read-only|集群节点为只读
5100|Distributed transaction failed|分布式事务失败
5101|Distributed transaction timeout|分布式事务超时
5102|Distributed transaction does not exist|分布式事务不存在
5104|Distributed lock failed|分布式锁失败
5105|Distributed lock timeout|分布式锁超时
5106|Remote node returned an error|远程节点返回错误
5107|Remote node is not reachable|远程节点不可达
6000|Cursor does not exist|游标不存在
6001|Cursor is already open|游标已打开
6002|Cursor is not open|游标未打开
6500|Gateway connection failed|网关连接失败
6501|Gateway request timeout|网关请求超时
8000|Graph relation does not exist|图关系不存在
8001|Graph relation already exists|图关系已存在
8002|Graph node does not exist|图节点不存在
8010|Graph edge does not exist|图边不存在
8011|Graph edge already exists|图边已存在
8012|Graph path is too long|图路径过长
8013|Graph traversal failed|图遍历失败
8014|Graph contains a cycle|图中存在环
8020|Record set is empty|记录集为空
8021|Record set is closed|记录集已关闭
8030|Record set position is invalid|记录集位置无效
8050|Failed to export data|导出数据失败
8051|Export file already exists|导出文件已存在
8052|Failed to create export file|创建导出文件失败
8054|Export format is not supported|不支持的导出格式
8055|Export was cancelled|导出已取消
8100|Failed to load import data|加载导入数据失败
8101|Import data format is invalid|导入数据格式无效
8102|Import data is too large|导入数据过大
8500|Invalid JSON text|无效的JSON文本
8501|Invalid JSON path|无效的JSON路径
8502|JSON path '%s' does not exist|JSON路径'%s'不存在
8503|JSON document is too large|JSON文档过大
8504|JSON document is nested too deep|JSON文档嵌套过深
8505|Invalid JSON value|无效的JSON值
8506|Invalid JSON type|无效的JSON类型
8510|JSON object key is duplicated|JSON对象键重复
8511|JSON object key is invalid|JSON对象键无效
8512|JSON array index is out of range|JSON数组下标超出范围
8513|JSON string is not terminated|JSON字符串未结束
8514|Invalid escape in JSON string|JSON字符串中的转义无效
8515|Invalid number in JSON text|JSON文本中的数字无效
8516|Unexpected character in JSON text|JSON文本中出现意外的字符
8517|Unexpected end of JSON text|JSON文本意外结束
8518|Failed to convert value to JSON|将值转换为JSON失败
8519|Failed to convert JSON to value|将JSON转换为值失败
8520|JSON function parameter is invalid|JSON函数参数无效
8521|JSON path wildcard is not allowed|不允许使用JSON路径通配符
8522|JSON merge failed|JSON合并失败
8523|JSON replace failed|JSON替换失败
8524|JSON insert failed|JSON插入失败
8525|JSON remove failed|JSON删除失败
8526|Binary JSON is damaged|二进制JSON已损坏
8600|Stored program does not exist|存储程序不存在
8601|Stored program failed|存储程序执行失败
8602|Stored program was interrupted|存储程序被中断
8603|Stored program recursion is too deep|存储程序递归过深
8604|Stored program variable is not declared|存储程序变量未声明
8605|Stored program returned no value|存储程序没有返回值
8606|Stored program has no handler for the condition|存储程序没有该条件的处理程序
8607|Stored program label is not found|未找到存储程序标签
8608|Stored program loop does not end|存储程序循环无法结束
8609|Stored program is being changed|存储程序正在修改
9000|Failed to create cache|创建缓存失败
9001|Cache already exists|缓存已存在
9002|Cache does not exist|缓存不存在
9003|Cache size is invalid|缓存大小无效
9004|Cache block size is invalid|缓存块大小无效
9005|Failed to create FIFO|创建FIFO失败
9006|Failed to open FIFO|打开FIFO失败
9007|Failed to delete FIFO|删除FIFO失败
9008|FIFO is full|FIFO已满
9009|FIFO is empty|FIFO为空
9010|Failed to allocate cache block|分配缓存块失败
9011|Failed to free cache block|释放缓存块失败
9012|Cache block is locked|缓存块已被锁定
9013|Cache block is dirty|缓存块为脏块
9014|Cache block is damaged|缓存块已损坏
9015|Failed to load cache block|加载缓存块失败
9016|Cache load request timeout|缓存加载请求超时
9017|Cache load queue is full|缓存加载队列已满
9018|Failed to flush cache block|刷新缓存块失败
9019|Cache flush queue is full|缓存刷新队列已满
9020|Cache flush timeout|缓存刷新超时
9021|Cache hash table is full|缓存哈希表已满
9022|Cache hash table is damaged|缓存哈希表已损坏
9023|Cache LRU list is damaged|缓存LRU链表已损坏
9024|Failed to evict cache block|淘汰缓存块失败
9025|No cache block can be evicted|没有可淘汰的缓存块
9026|Cache file is not registered|缓存文件未注册
9027|Cache file count reached the maximum|缓存文件数已达到最大值
9028|Failed to register cache file|注册缓存文件失败
9029|Failed to unregister cache file|注销缓存文件失败
9030|Cache preload failed|缓存预加载失败
9031|Cache preload is in progress|正在进行缓存预加载
9032|Cache head is invalid|缓存头无效
9033|Cache version does not match|缓存版本不匹配
9034|Cache shared memory is missing|缓存共享内存缺失
9035|Cache semaphore is missing|缓存信号量缺失
9036|Cache timestamp is invalid|缓存时间戳无效
9037|Cache is being reset|缓存正在重置
9500|Storage does not have enough space to create new files|存储空间不足，无法创建新文件
9501|When initial loading index trunk and metadata, the cache is full|初始加载索引主干和元数据时缓存已满
9502|Storage file open request failed|存储文件打开请求失败
9503|Failed to create storage thread|创建存储线程失败
10001|Procedure '%s' does not exist|存储过程'%s'不存在
10002|Procedure already exists|存储过程已存在
10003|Failed to create procedure|创建存储过程失败
10004|Failed to drop procedure|删除存储过程失败
10005|Failed to alter procedure|修改存储过程失败
10006|Failed to compile procedure|编译存储过程失败
10007|Procedure body is empty|存储过程体为空
10008|Procedure body is too long|存储过程体过长
10009|Wrong number of arguments for procedure|存储过程参数个数错误
10010|Procedure parameter is invalid|存储过程参数无效
10011|Procedure parameter name is duplicated|存储过程参数名重复
10012|OUT parameter is not a variable|OUT参数不是变量
10013|Variable is already declared|变量已声明
10014|Variable is not declared|变量未声明
10015|Variable type is invalid|变量类型无效
10016|Variable declaration is misplaced|变量声明位置错误
10017|Cursor is already declared|游标已声明
10018|Cursor is not declared|游标未声明
10019|Cursor declaration is misplaced|游标声明位置错误
10020|Cursor fetch has no data|游标提取没有数据
10021|Cursor fetch column count does not match|游标提取的字段数不匹配
10022|Handler is already declared|处理程序已声明
10023|Handler declaration is misplaced|处理程序声明位置错误
10024|Condition is not declared|条件未声明
10025|Condition is already declared|条件已声明
10026|Label is not defined|标签未定义
10027|Label is already defined|标签已定义
10028|LEAVE without a matching label|LEAVE没有匹配的标签
10029|ITERATE without a matching loop|ITERATE没有匹配的循环
10030|RETURN is only allowed in a function|RETURN只允许在函数中使用
10031|Function has no RETURN statement|函数没有RETURN语句
10032|Function '%s' does not exist|函数'%s'不存在
10033|Function already exists|函数已存在
10034|Failed to create function|创建函数失败
10035|Failed to drop function|删除函数失败
10036|Function return type is invalid|函数返回类型无效
10037|Statement is not allowed in a stored procedure|存储过程中不允许使用该语句
10038|Statement is not allowed in a function|函数中不允许使用该语句
10039|Dynamic SQL is not allowed here|此处不允许使用动态SQL
10040|SIGNAL statement raised an error|SIGNAL语句引发错误
10041|SQLSTATE value is invalid|SQLSTATE值无效
10042|Procedure call stack is too deep|存储过程调用栈过深
10043|Procedure is being executed|存储过程正在执行
10044|Procedure definer does not exist|存储过程定义者不存在
10045|Procedure has no privilege to run|存储过程没有执行权限
10050|Trigger '%s' does not exist|触发器'%s'不存在
10051|Trigger already exists|触发器已存在
10052|Failed to create trigger|创建触发器失败
10053|Trigger cannot change its own table|触发器不能修改自身所在的表
10054|Trigger timing or event is invalid|触发器时机或事件无效
10060|Event '%s' does not exist|事件'%s'不存在
10061|Event already exists|事件已存在
10062|Failed to create event|创建事件失败
10063|Event schedule is invalid|事件调度无效
10064|Event scheduler is not running|事件调度器未运行
10070|Failed to run event|执行事件失败
10071|Event has expired|事件已过期
10072|Event is disabled|事件已禁用
10073|Event interval is invalid|事件间隔无效
10074|Event execution timeout|事件执行超时
"""

# Conversions a caller might pass arguments to, in order. A literal "%%" is
# not one.
CONVERSION = re.compile(r"%%|%[-+ #0]*\d*(?:\.\d+)?[hlLqjzt]*[diouxXeEfgGcsp]")


def expand_runs(text):
    codes = []
    for part in text.split(","):
        part = part.strip()
        if "-" in part:
            low, high = (int(x) for x in part.split("-"))
            codes.extend(range(low, high + 1))
        else:
            codes.append(int(part))
    return codes


def conversions(text):
    return [m for m in CONVERSION.findall(text) if m != "%%"]


def c_literal(text):
    out = []
    for ch in text:
        if ch == "\\":
            out.append("\\\\")
        elif ch == '"':
            out.append('\\"')
        elif ch == "?":
            out.append("\\?")  # no trigraphs, whatever the compiler's mood
        elif ord(ch) < 0x20:
            raise ValueError("control character in text: %r" % text)
        else:
            out.append(ch)
    return '"' + "".join(out) + '"'


def parse_rows():
    rows = []
    for number, line in enumerate(ROWS.split("\n"), 1):
        if not line:
            continue
        fields = line.split("|")
        if len(fields) != 3:
            sys.exit("row line %d: expected code|English|Chinese" % number)
        code, english, chinese = fields
        rows.append((int(code), english, chinese))
    return rows


def check(rows):
    errors = []
    expected = expand_runs(RUNS)
    codes = [r[0] for r in rows]
    if len(expected) != ROW_COUNT:
        errors.append("runs give %d codes, not %d" % (len(expected), ROW_COUNT))
    if codes != expected:
        missing = sorted(set(expected) - set(codes))
        extra = sorted(set(codes) - set(expected))
        errors.append("codes differ from the runs: missing %s, extra %s" % (missing[:10], extra[:10]))
    for i in range(1, len(codes)):
        if codes[i] <= codes[i - 1]:
            errors.append("code %d follows %d" % (codes[i], codes[i - 1]))
    for code, english, chinese in rows:
        for text in (english, chinese):
            if not text.strip():
                errors.append("code %d: empty text" % code)
            if len(text.encode("utf-8")) >= TEXT_SLOT:
                errors.append("code %d: text does not fit %d bytes" % (code, TEXT_SLOT))
        if conversions(english) != conversions(chinese):
            errors.append("code %d: conversions differ between the twins" % code)
    return errors


def render(rows):
    lines = [
        "// TalvorErrorTable.cpp: the engine's error codes in Chinese and English.",
        "//",
        "// Generated by scripts/gen-error-table.py from the rows kept there; change",
        "// the script and run it again rather than editing this file. Both tables",
        "// hold the same codes in the same ascending order, which the binary search",
        "// of GetErrorDescription relies on.",
        '#include "TalvorError.h"',
        "",
    ]
    for name, column in (("g_pTalvorErrorDef", 2), ("g_pTalvorErrorDefE", 1)):
        lines.append("const TALVORERROR_DEF %s[TALVOR_ERROR_COUNT] = {" % name)
        for row in rows:
            lines.append("    {%d, %s}," % (row[0], c_literal(row[column])))
        lines.append("};")
        lines.append("")
    return "\n".join(lines)


def main():
    rows = parse_rows()
    errors = check(rows)
    if errors:
        for e in errors:
            print("gen-error-table: " + e, file=sys.stderr)
        return 1
    root = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
    target = os.path.join(root, "TalvorBaseLib", "messages", "TalvorErrorTable.cpp")
    text = render(rows)
    if "--check" in sys.argv[1:]:
        try:
            with open(target, encoding="utf-8") as f:
                current = f.read()
        except OSError:
            current = None
        if current != text:
            print("gen-error-table: %s is out of date" % target, file=sys.stderr)
            return 1
        print("%s is up to date" % target)
        return 0
    with open(target, "w", encoding="utf-8", newline="\n") as f:
        f.write(text)
    print("wrote %d rows to %s" % (len(rows), target))
    return 0


if __name__ == "__main__":
    sys.exit(main())
